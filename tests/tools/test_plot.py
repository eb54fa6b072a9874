"""Tests of tools/mhboost-plot on recorded training runs (tests/tools/data):
run_news.txt (20 rounds of examples/news), run_replay_reject.txt (-p with
-t: replayed rounds numbered up to 0, rejection figures) and run_no_test.txt
(no test file: the test error is not a number)."""

import os
import shutil
import unittest
import xml.etree.ElementTree as ET

from tooltest import DATA, TempDirTest, load_tool, run_tool

plot = load_tool("mhboost-plot")
SVG = "{http://www.w3.org/2000/svg}"


def recorded(name):
    with open(os.path.join(DATA, name)) as f:
        return f.read().splitlines()


def polyline_points(root, name):
    lines = [p for p in root.iter(SVG + "polyline") if p.get("class") == name]
    return [[tuple(map(float, xy.split(",")))
             for xy in p.get("points").split()] for p in lines]


class ParseTest(unittest.TestCase):
    def test_round_lines(self):
        rounds = plot.parse_rounds(recorded("run_news.txt"))
        self.assertEqual([r for r, _, _ in rounds], list(range(1, 21)))
        self.assertEqual(rounds[0], (1, 0.6166667, 0.62))
        rounds = plot.parse_rounds(recorded("run_replay_reject.txt"))
        self.assertEqual([r for r, _, _ in rounds], [-4, -2, 0, 2, 4])
        self.assertEqual(rounds[-1], (4, 0.2333333, 0.32))


class SvgTest(TempDirTest):
    def chart(self, name):
        out = self.path("chart.svg")
        status, _, err = run_tool("mhboost-plot", os.path.join(DATA, name),
                                  "-o", out)
        self.assertEqual(status, 0, err)
        return ET.parse(out).getroot(), err

    def test_svg_of_a_run(self):
        root, err = self.chart("run_news.txt")
        self.assertIn("20 rounds; last round 20: train 0.1, test 0.2", err)
        train, = polyline_points(root, "train")
        test, = polyline_points(root, "test")
        self.assertEqual(len(train), 20)
        self.assertEqual(len(test), 20)
        xs = [x for x, _ in train]
        self.assertEqual(xs, sorted(xs))
        # Lower error is drawn higher up: training error falls from 0.617 to
        # 0.1 and the test error ends above it (0.2).
        self.assertGreater(train[-1][1], train[0][1])
        self.assertLess(test[-1][1], train[-1][1])

    def test_missing_test_error_is_left_out(self):
        root, _ = self.chart("run_no_test.txt")
        self.assertEqual(len(polyline_points(root, "train")[0]), 5)
        self.assertEqual(polyline_points(root, "test"), [])
        labels = [t.text for t in root.iter(SVG + "text")]
        self.assertIn("test (no values)", labels)

    def test_errors(self):
        src = self.write("empty.txt", "no rounds here\n")
        status, _, err = run_tool("mhboost-plot", src, "-o",
                                  self.path("x.svg"))
        self.assertEqual(status, 1)
        self.assertIn("no round lines", err)
        status, _, err = run_tool("mhboost-plot", src, "-o",
                                  self.path("x.pdf"))
        self.assertEqual(status, 2)
        self.assertIn("must end in .svg or .png", err)

    def test_png_through_gnuplot(self):
        out = self.path("chart.png")
        status, _, err = run_tool("mhboost-plot", "-o", out,
                                  stdin="\n".join(recorded("run_news.txt"))
                                  .encode())
        if shutil.which("gnuplot") is None:
            self.assertEqual(status, 1)
            self.assertIn("needs gnuplot, which is not installed", err)
            return
        self.assertEqual(status, 0, err)
        with open(out, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")


if __name__ == "__main__":
    unittest.main()
