"""Tests of tools/mhboost-plot on recorded training runs (tests/tools/data):
run_news.txt (20 rounds of examples/news), run_replay_reject.txt (-p with
-t: replayed rounds numbered up to 0, rejection figures) and run_no_test.txt
(no test file: the test error is not a number)."""

import os
import shutil
import unittest
import xml.etree.ElementTree as ET

from tooltest import DATA, TempDirTest, run_tool

SVG = "{http://www.w3.org/2000/svg}"


class PlotTest(TempDirTest):
    def chart(self, name):
        out = self.path("chart.svg")
        status, _, err = run_tool("mhboost-plot", os.path.join(DATA, name),
                                  "-o", out)
        self.assertEqual(status, 0, err)
        root = ET.parse(out).getroot()
        points = {p.get("class"): [tuple(map(float, xy.split(",")))
                                   for xy in p.get("points").split()]
                  for p in root.iter(SVG + "polyline")}
        return root, points, err

    def test_svg_of_a_run(self):
        _, points, err = self.chart("run_news.txt")
        self.assertIn("20 rounds; last round 20: train 0.1, test 0.2", err)
        train, test = points["train"], points["test"]
        self.assertEqual((len(train), len(test)), (20, 20))
        self.assertEqual(train, sorted(train))
        # Lower error is drawn higher up: training error falls from 0.617 to
        # 0.1 and the test error ends above it (0.2).
        self.assertGreater(train[-1][1], train[0][1])
        self.assertLess(test[-1][1], train[-1][1])
        # Replayed rounds (numbered -4 to 0) are drawn too.
        self.assertEqual(len(self.chart("run_replay_reject.txt")[1]["train"]), 5)
        root, points, _ = self.chart("run_no_test.txt")
        self.assertEqual((len(points["train"]), "test" in points), (5, False))
        self.assertIn("test (no values)", [t.text for t in root.iter(SVG + "text")])

    def test_errors_and_png(self):
        src = self.write("empty.txt", "no rounds here\n")
        for out, status, message in (("x.svg", 1, "no round lines"),
                                     ("x.pdf", 2, "must end in .svg or .png")):
            got, _, err = run_tool("mhboost-plot", src, "-o", self.path(out))
            self.assertEqual(got, status)
            self.assertIn(message, err)
        out = self.path("chart.png")
        with open(os.path.join(DATA, "run_news.txt"), "rb") as f:
            status, _, err = run_tool("mhboost-plot", "-o", out, stdin=f.read())
        if shutil.which("gnuplot") is None:
            self.assertEqual(status, 1)
            self.assertIn("needs gnuplot, which is not installed", err)
            return
        self.assertEqual(status, 0, err)
        with open(out, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")


if __name__ == "__main__":
    unittest.main()
