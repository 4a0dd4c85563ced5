#!/usr/bin/env python3
"""Tests of plots, tables and judgement, with figures of which the results are known."""

import os
import sys
import tempfile
import unittest
import xml.etree.ElementTree

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
from report import figures, plots, profile, svg, tables, targets  # noqa: E402

ROWS = """shape,connections,depth,row,server,rounds,ops_per_s,ops_per_s_best,mb_per_s,p50_us,p90_us,p99_us,max_us,of_bare,of_bare_q1,of_bare_q3,of_rival,of_rival_q1,of_rival_q3
one,1,1,GETATTR,nfslib,3,8000,9000,0,20,30,40,50,0.8000,0.7000,0.9000,2.0000,1.9000,2.1000
one,1,1,GETATTR,bare,3,10000,11000,0,15,20,30,40,,,,,,
one,1,1,GETATTR,ganesha,3,4000,4100,0,50,60,70,80,0.4000,0.3900,0.4100,,,
both,8,4,READ4K,nfslib,3,8000,9000,32.7,20,30,80,90,0.7900,0.7000,0.9000,1.4900,1.4000,1.6000
both,8,4,READ4K,bare,3,10000,11000,40.9,15,20,30,40,,,,,,
both,8,4,READ4K,ganesha,3,4000,4100,16.3,30,60,70,80,0.4000,0.3900,0.4100,,,
"""
GROWTH = """figure,size,value,unit
getattr_known_paths,10,20,us
getattr_known_paths,1000000,21,us
rename_folder_known_paths_below,10,0.1,ms
rename_folder_known_paths_below,100000,21,ms
"""
FILES = {
    "machine.csv": 'what,value\ndate,"2026-01-02"\ncommit,"abc & <def>"\n',
    "rows.csv": ROWS,
    "listings.csv": "entries,server,rounds,entries_per_s,entries_per_s_best\n1000,nfslib,3,149999.0,160000.0\n",
    "growth.csv": GROWTH,
    "profile.csv": "shape,row,samples,own,send,receive,names,data,locks,switch,kernel,calls\n"
                   "one,GETATTR,100,0.200,0.300,0.100,0.250,0.000,0.010,0.040,0.100,recvfrom openat sendmsg\n",
}


class ReportTest(unittest.TestCase):
    def setUp(self):
        self.holder = tempfile.TemporaryDirectory()
        self.addCleanup(self.holder.cleanup)
        self.folder = self.holder.name
        for name, text in FILES.items():
            with open(os.path.join(self.folder, name), "w", encoding="utf-8") as file:
                file.write(text)
        self.run_read = figures.Run(self.folder)

    def test_targets_are_judged_by_their_bounds(self):
        judged = {text.split(" is ")[0]: met for met, text in targets.judge_run(self.run_read)}
        self.assertEqual(judged, {
            "one GETATTR: of_bare": True,
            "both READ4K: of_rival": False,
            "both READ4K: p99_of_rival": False,
            "listing 1000: entries_per_s": False,
            "growth rename_folder_known_paths_below: ms": False,
        })

    def test_tables_hold_the_figures(self):
        named = tables.named(self.run_read)
        self.assertIn("| GETATTR | 8,000 | 9,000 | 10,000 | 4,000 | 0.80 (0.70 to 0.90) | 0.40 (0.39 to 0.41) | "
                      "2.00 (1.90 to 2.10) |", named["rows-one"])
        self.assertIn("| READ4K | 20.0 | 30.0 | 80.0 | 15.0 |", named["latency-both"])
        self.assertIn("| GETATTR | 20 | 30 | 10 | 25 | 0 | 4 | 11 |", named["profile-one"])
        self.assertIn("1 of 5 targets are met", named["targets"])

    def test_a_document_keeps_what_is_not_marked(self):
        path = os.path.join(self.folder, "page.md")
        with open(path, "w", encoding="utf-8") as file:
            file.write("before\n<!-- bench:listings -->\nold\n<!-- /bench -->\nbetween\n<!-- bench:none -->\nkept\n"
                       "<!-- /bench -->\n")
        tables.renew(self.run_read, path)
        tables.renew(self.run_read, path)
        with open(path, encoding="utf-8") as file:
            text = file.read()
        self.assertNotIn("old", text)
        self.assertEqual(text.count("149,999"), 1)
        self.assertIn("between\n<!-- bench:none -->\nkept\n", text)

    def test_pictures_are_well_formed_and_name_what_they_show(self):
        plots.write_all(self.run_read, self.folder)
        for name, words in {"throughput.svg": ("GETATTR", "READ4K", "NFS-Ganesha", "operations per second"),
                            "latency.svg": ("GETATTR", "microseconds"), "shares.svg": ("bare server",),
                            "growth.svg": ("known paths", "milliseconds")}.items():
            tree = xml.etree.ElementTree.parse(os.path.join(self.folder, name))
            text = " ".join(tree.getroot().itertext())
            for word in words:
                self.assertIn(word, text, name)
            self.assertIn("prefers-color-scheme:dark", text)

    def test_axes_put_values_in_their_place(self):
        axis = svg.Axis(1, 100, 0, 200, True)
        self.assertAlmostEqual(axis.at(10), 100)
        self.assertEqual(axis.ticks(), [1, 2, 5, 10, 20, 50, 100])
        self.assertEqual(svg.Axis(0, 1, 0, 1).ticks()[:2], [0, 0.2])

    def test_samples_are_told_apart_by_their_system_call(self):
        script = ["  ff __d_lookup ([kernel.kallsyms])\n", "  ff __x64_sys_openat2 ([kernel.kallsyms])\n",
                  "  55 open (/lib/libc.so.6)\n", "\n",
                  "  55 CNfs3Prog::Process (libNfsLib.so)\n", "\n",
                  "  ff __schedule ([kernel.kallsyms])\n", "  ff __sys_recvfrom ([kernel.kallsyms])\n", "\n"]
        self.assertEqual(dict(profile.uses(script)), {"names": 1, "own": 1, "switch": 1})

    def test_the_usual_series_of_calls_is_found(self):
        once = ["7 recvfrom(3, 0, 1) = 1\n", "7 openat2(3) = 4\n", "7 sendmsg(3 <unfinished ...>\n",
                "7 <... sendmsg resumed>) = 1\n"]
        self.assertEqual(profile.usual_calls(once * 3 + ["7 recvfrom(3) = 0\n"]), ("recvfrom", "openat2", "sendmsg"))


if __name__ == "__main__":
    unittest.main()
