// What the console program asks of its process: standard descriptors, limits, and the signals that end it.
#pragma once

/// Readies the process, once, before anything else runs:
/// - descriptors 0, 1 and 2 are open, so that no socket or file of ours ever takes the place of a closed one;
/// - standard output is written line by line, so that a reader of a pipe sees each line at once;
/// - the soft limit of open files is raised to the hard limit;
/// - SIGINT, SIGTERM and SIGHUP request the end of the program, and a vanished reader does not kill it.
/// Commands run by the program start with default signal dispositions.
void PrepareConsoleProcess();

/// True once a signal has asked for the end of the program. Any thread.
bool IsConsoleEndRequested();

/// A descriptor that is readable from then on, to be polled; -1 where there was none to be had.
int GetConsoleEndDescriptor();

/// Sleeps for a time, or until a signal asks for the end of the program.
void SleepUnlessConsoleEnds(int iMilliseconds);
