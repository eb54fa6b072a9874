"""Tests of tools/mhboost-convert: what it writes must read back, through the
field grammar and through mhboost itself, as the text and labels it was
given."""

import re
import unittest

from tooltest import (TempDirTest, binary, needs_binary, read_data,
                      read_names, run, run_tool, squeeze)

# Lines that put every special character of the field grammar where it does
# harm: ends of words, ends of texts, next to each other, escaped already.
NASTY_LINES = [
    "__label__sports __label__local Late goal, wins: the cup. Final.",
    "__label__politics 50% of voters | say no.. really... end.",
    "__label__science back\\slash and \\, escaped \\. things\\",
    "__label__U.S. __label__a,b:c tabs\there   and  spaces .",
    "__label__sports 3.5 and 3. and .5 and a.,b and x.|y and z.%w",
    "__label__science caf\u00e9 na\u00efve non\u00a0breaking \u2013 dash.",
    "__label__local in the middle __label__sports labels count too",
    "__label__politics ? is a word here, not a missing value?",
    "__label__science .leading period and trailing ...",
]


def expected(line):
    # Only ASCII white space separates words: mhboost keeps a no-break space.
    words = re.split("[ \t]+", line.strip())
    labels = [w[len("__label__"):] for w in words if w.startswith("__label__")]
    text = " ".join(w for w in words if not w.startswith("__label__"))
    return squeeze(text), labels


class LabelledTextTest(TempDirTest):
    def convert(self, lines, *options):
        src = self.write("in.txt", "\n".join(lines) + "\n")
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"), *options)
        self.assertEqual(status, 0, err)
        return err

    def test_every_line_reads_back_as_given(self):
        self.convert(NASTY_LINES)
        classes, attributes = read_names(self.read("out.names"))
        self.assertEqual(attributes, [("text", "text")])
        examples = read_data(self.read("out.data"), 1)
        self.assertEqual(len(examples), len(NASTY_LINES))
        for line, (values, labels) in zip(NASTY_LINES, examples):
            text, want_labels = expected(line)
            self.assertEqual(squeeze(values[0]), text, line)
            self.assertEqual(labels, want_labels, line)
            self.assertTrue(set(labels) <= set(classes))
        # One record per line, each ending with a period and a newline.
        data = self.read("out.data")
        self.assertEqual(data.count("\n"), len(NASTY_LINES))
        self.assertTrue(all(l.endswith(".") for l in data.splitlines()))

    def test_lone_question_mark_is_reported(self):
        err = self.convert(["__label__a ?", "__label__b fine"])
        self.assertIn("lone '?'", err)

    def test_undecodable_bytes_pass_through(self):
        src = self.write("in.txt", b"__label__a caf\xe9 ol\xe9, ok\n")
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"))
        self.assertEqual(status, 0, err)
        with open(self.path("out.data"), "rb") as f:
            self.assertIn(b"caf\xe9 ol\xe9\\, ok, a.", f.read())

    def test_no_labels_needs_classes(self):
        src = self.write("in.txt", "just text\n")
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"))
        self.assertEqual(status, 1)
        self.assertIn("no labels", err)
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"), "--classes", "x,y")
        self.assertEqual(status, 0, err)
        self.assertEqual(read_names(self.read("out.names"))[0], ["x", "y"])

    def test_split_is_seeded_and_loses_nothing(self):
        lines = ["__label__c%d example number %d." % (i % 3, i)
                 for i in range(40)]
        self.convert(lines, "--test-fraction", "0.25", "--seed", "7")
        train = self.read("out.data").splitlines()
        test = self.read("out.test").splitlines()
        self.assertEqual(len(test), 10)
        self.assertEqual(sorted(train + test),
                         sorted(self.read_all_records(lines)))
        # File order is kept inside each part.
        self.assertEqual(train, sorted(train, key=self.number))
        self.convert(lines, "--test-fraction", "0.25", "--seed", "7")
        self.assertEqual(self.read("out.test").splitlines(), test)
        self.convert(lines, "--test-fraction", "0.25", "--seed", "8")
        self.assertNotEqual(self.read("out.test").splitlines(), test)

    def read_all_records(self, lines):
        self.convert(lines)
        return self.read("out.data").splitlines()

    @staticmethod
    def number(record):
        return int(re.search(r"number (\d+)", record).group(1))


CSV = '''title,source,words,when,topic
"Goal, late. Win!",wire,420,mon,sports
"multi
line   text: yes",web,,tue,politics|sports
what?,wire,3.5,mon,science
"x.",web,NA,tue,
"ends with a backslash\\",wire,-1e3,mon,science|politics
"50% off | today",web,12,tue,sports
'''


class TableTest(TempDirTest):
    def convert(self, text, *options, name="in.csv"):
        src = self.write(name, text)
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"), *options)
        self.assertEqual(status, 0, err)
        return err

    def test_kinds_are_inferred_and_values_read_back(self):
        err = self.convert(CSV, "--label", "topic", "--label-sep", "|")
        classes, attributes = read_names(self.read("out.names"))
        self.assertEqual(classes, ["sports", "politics", "science"])
        self.assertEqual(attributes, [("title", "text"),
                                      ("source", ["wire", "web"]),
                                      ("words", "continuous"),
                                      ("when", ["mon", "tue"])])
        self.assertRegex(err, r"words +continuous, 2 missing")
        got = read_data(self.read("out.data"), 4)
        self.assertEqual([v[0] for v, _ in got],
                         ["Goal, late. Win!", "multi line text: yes", "what?",
                          "x.", "ends with a backslash\\", "50% off | today"])
        self.assertEqual([v[2] for v, _ in got],
                         ["420", "?", "3.5", "?", "-1e3", "12"])
        self.assertEqual([l for _, l in got],
                         [["sports"], ["politics", "sports"], ["science"], [],
                          ["science", "politics"], ["sports"]])

    def test_flags_override_inference(self):
        self.convert(CSV, "--label", "5", "--label-sep", "|", "--text",
                     "words", "--ignore", "source", "--drop", "when")
        _, attributes = read_names(self.read("out.names"))
        self.assertEqual(attributes, [("title", "text"), ("source", "ignore"),
                                      ("words", "text")])

    def test_tsv_and_names_are_made_valid(self):
        tsv = ("first name\ta:b\ta:b\tclass\n"
               "ann\tx\ty\tlong label\n"
               "bob\tx\ty\tlong label\n")
        err = self.convert(tsv, name="in.tsv")
        classes, attributes = read_names(self.read("out.names"))
        self.assertEqual(classes, ["long_label"])
        self.assertEqual([a for a, _ in attributes],
                         ["first_name", "a_b", "a_b_2"])
        self.assertIn("renamed attribute 'first name' to 'first_name'", err)
        self.assertIn("renamed class 'long label' to 'long_label'", err)
        self.assertEqual(read_data(self.read("out.data"), 3)[0][1],
                         ["long_label"])

    def test_errors_name_the_problem(self):
        src = self.write("in.csv", CSV)
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"), "--label", "topic",
                                  "--continuous", "title")
        self.assertEqual(status, 1)
        self.assertIn("row 2", err)
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"), "--label", "nope")
        self.assertEqual(status, 1)
        self.assertIn("no column 'nope'", err)
        src = self.write("ragged.csv", "a,label\n1,x\n2\n")
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"))
        self.assertEqual(status, 1)
        self.assertIn("row 3 has 1 fields", err)


class ThroughMhboostTest(TempDirTest):
    """mhboost itself reads the converted files back: its long-form output
    prints every training example's values and correct labels."""

    def train(self):
        status, out, err = run([binary(), "-S", self.path("out"), "-n", "1",
                                "-o"])
        self.assertEqual(status, 0, err)
        return out.decode("utf-8", "surrogateescape")

    @needs_binary
    def test_labelled_text_survives_training(self):
        lines = [l for l in NASTY_LINES if "? is a word" not in l]
        src = self.write("in.txt", "\n".join(lines) + "\n")
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"))
        self.assertEqual(status, 0, err)
        printed = re.findall(r"\ntext: (.*)\ncorrect label = (.*)\n",
                             self.train())
        self.assertEqual(len(printed), len(lines))
        for line, (text, labels) in zip(lines, printed):
            want_text, want_labels = expected(line)
            self.assertEqual(text, want_text + " ")
            self.assertEqual(sorted(labels.split()), sorted(want_labels))

    @needs_binary
    def test_table_survives_training(self):
        src = self.write("in.csv", CSV)
        status, _, err = run_tool("mhboost-convert", src, "-o",
                                  self.path("out"), "--label", "topic",
                                  "--label-sep", "|")
        self.assertEqual(status, 0, err)
        out = self.train()
        self.assertEqual(re.findall(r"\ntitle: (.*)", out),
                         ["Goal, late. Win! ", "multi line text: yes ",
                          "what? ", "x. ", "ends with a backslash\\ ",
                          "50% off | today "])
        self.assertEqual(re.findall(r"\nwords: (.*)", out),
                         ["420.0000000", "?", "3.5000000", "?",
                          "-1000.0000000", "12.0000000"])
        self.assertEqual(re.findall(r"\nsource: (.*)", out),
                         ["wire", "web", "wire", "web", "wire", "web"])


if __name__ == "__main__":
    unittest.main()
