"""Tests of tools/mhboost-explain: its reading of a model, its explanations,
and its scores, which must be the classifier's to the last printed digit."""

import os
import shutil
import unittest

from tooltest import ROOT, TempDirTest, binary, needs_binary, run, run_tool

# Three attributes, so text terms carry the attribute name; the model repeats
# one term (merged on reading) and keys a discrete value and a threshold.
NAMES = """pos, neg.
title: text.
colour: red, blue.
age: continuous.
"""
MODEL = """4
 1.0 Text:SGRAM:title:good#news
0.5 -0.5
1.0 -1.0
 1.0 Text:THRESHOLD:age:
0.1 0.2
0.3 0.4
0.5 0.6
30.0
 1.0 Text:SGRAM:colour:1
0.0 0.0
-2.0 2.0
 1.0 Text:SGRAM:title:good#news
0.0 0.0
3.0 -3.0
"""
EXAMPLES = b"""very good news, blue, 40, pos.
bad, red, ?, neg.
good   news, red, 29.5, neg.
news good, blue, 30, pos.
"""
# Merged term: weight 2, c0 (0.25, -0.25), c1 (2, -2); normaliser 4.
EXPECTED = b"""1 0 0.625000000000 -0.350000000000
0 1 0.150000000000 -0.075000000000
0 1 1.075000000000 -0.900000000000
1 0 -0.250000000000 0.525000000000
"""


class ScoreTest(TempDirTest):
    def setUp(self):
        super().setUp()
        self.write("m.names", NAMES)
        self.write("m.shyp", MODEL)
        self.stem = self.path("m")

    def raw(self, *options, stdin=EXAMPLES):
        status, out, err = run_tool("mhboost-explain", "--stem", self.stem,
                                    "--explain", "--raw", *options,
                                    stdin=stdin)
        self.assertEqual(status, 0, err)
        return out, err

    def test_scores_in_every_mode(self):
        for mode in ("sgram", "ngram", "fgram"):
            out, err = self.raw("--mode", mode)
            self.assertEqual(out, EXPECTED, mode)
            self.assertTrue(err.endswith("Test error = 3.000000 / 4 = "
                                         "0.750000\n"), err)

    def test_sparse_wildcards_and_zero_weights(self):
        # A zero-weight rule's vectors are 0/0: the sums start afresh at the
        # first non-zero weight, but a zero weight after it leaves a nan.
        self.write("z.names", "a, b.\nt: text.\n")
        zero = "  0.0 Text:SGRAM:x\n1 2\n3 4\n"
        sparse = "  0.5 Text:SGRAM:y#?#z\n0.1 0.2\n0.3 0.4\n"
        self.stem = self.path("z")
        self.write("z.shyp", "2\n" + zero + sparse)
        out, _ = self.raw(stdin=b"y q z, a.\nx, b.\n")
        self.assertEqual(out, b"1 0 0.300000000000 0.400000000000\n"
                              b"0 1 0.100000000000 0.200000000000\n")
        self.write("z.shyp", "2\n" + sparse + zero)
        self.assertIn(b"nan", self.raw(stdin=b"y q z, a.\n")[0])

    def test_explanation_and_ranking(self):
        status, out, err = run_tool("mhboost-explain", "--stem", self.stem,
                                    "--explain", stdin=EXAMPLES[:31])
        self.assertEqual(status, 0, err)
        text = out.decode()
        self.assertIn("example 1: labels pos; predicted pos", text)
        self.assertIn("0.625000000000  -0.350000000000", text)
        self.assertIn("rules that fired (3 of 3)", text)
        self.assertIn("present: colour=blue", text)
        self.assertIn("at/above: age < 30", text)

        status, out, err = run_tool("mhboost-explain", "--stem", self.stem,
                                    "--top", "2")
        self.assertEqual(status, 0, err)
        text = out.decode()
        self.assertIn("model %s.shyp: 3 rules (4 in the file)" % self.stem,
                      text)
        self.assertIn("   1. rule 1, weight 2.000000, TERM: title:good news",
                      text)
        self.assertNotIn("   3. rule", text)
        self.assertIn("+4.000000  rule 1 present: title:good news", text)

    def test_bad_inputs(self):
        status, _, err = run_tool("mhboost-explain", "--stem", self.stem,
                                  "--explain", stdin=b"x, green, 1, pos.\n")
        self.assertEqual(status, 1)
        self.assertIn("'green' is not a value of attribute colour", err)
        self.write("m.shyp", "1\n 1.0 SGRAM-good\n0 0\n0 0\n")
        status, _, err = run_tool("mhboost-explain", "--stem", self.stem)
        self.assertEqual(status, 1)
        self.assertIn("malformed rule header 'SGRAM-good'", err)


class AgreesWithClassifierTest(TempDirTest):
    """Trains on the example news set and compares `mhboost -C` with
    --explain --raw, line for line and the error summary."""

    @needs_binary
    def test_same_scores_as_mhboost(self):
        for name in ("news.names", "news.data", "news.test"):
            shutil.copy(os.path.join(ROOT, "examples", name), self.dir)
        stem = self.path("news")
        with open(self.path("news.test"), "rb") as f:
            test = f.read()
        for options, mode in ((["-W", "2"], "sgram"),
                              (["-W", "3", "-n", "40"], "sgram"),
                              (["-N", "ngram", "-W", "2"], "ngram"),
                              (["-N", "fgram", "-W", "2"], "fgram"),
                              (["-z", "-W", "2"], "sgram")):
            status, _, err = run([binary(), "-S", stem, "-n", "25"] + options)
            self.assertEqual(status, 0, err)
            status, want, want_err = run([binary(), "-S", stem, "-C"] +
                                         options, stdin=test)
            self.assertEqual(status, 0, want_err)
            status, got, got_err = run_tool("mhboost-explain", "--stem", stem,
                                            "--mode", mode, "--explain",
                                            "--raw", stdin=test)
            self.assertEqual(status, 0, got_err)
            self.assertEqual(got.decode(), want.decode(), options)
            self.assertEqual(got_err.splitlines()[-1],
                             want_err.splitlines()[-1], options)


if __name__ == "__main__":
    unittest.main()
