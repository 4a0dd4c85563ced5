"""Plots, tables and judgement from the CSV files of bench/run.sh."""
