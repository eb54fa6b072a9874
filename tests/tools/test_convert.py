"""Tests of tools/mhboost-convert: what it writes must read back through
mhboost itself as the text, values and labels it was given."""

import re
import unittest

from tooltest import TempDirTest, binary, needs_binary, run, run_tool

# Every special character of the field grammar where it does harm: ends of
# words and texts, next to each other, escaped already.
NASTY_LINES = [
    "__label__sports __label__local Late goal, wins: the cup. Final.",
    "__label__politics 50% of voters | say no.. really... end.",
    "__label__science back\\slash and \\, escaped \\. things\\",
    "__label__U.S. __label__a,b:c tabs\there   and  spaces .",
    "__label__sports 3.5 and 3. and .5 and a.,b and x.|y and z.%w",
    "__label__science caf\u00e9 na\u00efve non\u00a0breaking \u2013 dash.",
    "__label__local in the middle __label__sports labels count too",
    "__label__science .leading period and trailing ...",
]
CSV = '''title,source,words,when,topic
"Goal, late. Win!",wire,420,mon,sports
"multi
line   text: yes",web,,tue,politics|sports
what?,wire,3.5,mon,science
"x.",web,NA,tue,
"ends with a backslash\\",wire,-1e3,mon,science|politics
"50% off | today",web,12,tue,sports
'''


class ConvertTest(TempDirTest):
    def convert(self, text, *options, name="in.txt", status=0):
        src = self.write(name, text)
        got, _, err = run_tool("mhboost-convert", src, "-o", self.path("out"),
                               *options)
        self.assertEqual(got, status, err)
        return err

    def names(self):
        return [l for l in self.read("out.names").splitlines()
                if not l.startswith("|")]

    def train(self):
        status, out, err = run([binary(), "-S", self.path("out"), "-n", "1",
                                "-o"])
        self.assertEqual(status, 0, err)
        return out.decode("utf-8", "surrogateescape")

    @needs_binary
    def test_labelled_text_reads_back_through_mhboost(self):
        self.convert("\n".join(NASTY_LINES) + "\n")
        printed = re.findall(r"\ntext: (.*)\ncorrect label = (.*)\n",
                             self.train())
        self.assertEqual(len(printed), len(NASTY_LINES))
        for line, (text, labels) in zip(NASTY_LINES, printed):
            # Only ASCII white space separates words.
            words = re.split("[ \t]+", line.strip())
            want = [w[9:] for w in words if w.startswith("__label__")]
            self.assertEqual(text, " ".join(
                w for w in words if not w.startswith("__label__")) + " ")
            self.assertEqual(sorted(labels.split()), sorted(want))

    @needs_binary
    def test_table_kinds_inferred_and_read_back_through_mhboost(self):
        err = self.convert(CSV, "--label", "topic", "--label-sep", "|",
                           name="in.csv")
        self.assertEqual(self.names(), [
            "sports, politics, science.", "title: text.",
            "source: wire, web.", "words: continuous.", "when: mon, tue."])
        self.assertRegex(err, r"words +continuous, 2 missing")
        out = self.train()
        self.assertEqual(re.findall(r"\ntitle: (.*)", out), [
            "Goal, late. Win! ", "multi line text: yes ", "what? ", "x. ",
            "ends with a backslash\\ ", "50% off | today "])
        self.assertEqual(re.findall(r"\nwords: (.*)", out), [
            "420.0000000", "?", "3.5000000", "?", "-1000.0000000",
            "12.0000000"])
        self.assertEqual([sorted(l.split()) for l in
                          re.findall(r"correct label = (.*)\n", out)],
                         [["sports"], ["politics", "sports"], ["science"], [],
                          ["politics", "science"], ["sports"]])

    def test_flags_override_inference_and_names_are_made_valid(self):
        self.convert(CSV, "--label", "5", "--label-sep", "|", "--text",
                     "words", "--ignore", "source", "--drop", "when",
                     name="in.csv")
        self.assertEqual(self.names()[1:], [
            "title: text.", "source: ignore.", "words: text."])
        err = self.convert("first name\ta:b\ta:b\tclass\nann\tx\ty\tlong label\n",
                           name="in.tsv")
        self.assertEqual(self.names()[0], "long_label.")
        self.assertEqual([l.split(":")[0] for l in self.names()[1:]],
                         ["first_name", "a_b", "a_b_2"])
        self.assertIn("renamed attribute 'first name' to 'first_name'", err)
        self.assertIn("renamed class 'long label' to 'long_label'", err)

    def test_odd_inputs(self):
        self.assertIn("lone '?'", self.convert("__label__a ?\n__label__b x\n"))
        self.convert(b"__label__a caf\xe9 ol\xe9, ok\n")
        with open(self.path("out.data"), "rb") as f:
            self.assertIn(b"caf\xe9 ol\xe9\\, ok, a.", f.read())
        self.assertIn("no labels", self.convert("just text\n", status=1))
        self.convert("just text\n", "--classes", "x,y")
        self.assertEqual(self.names()[0], "x, y.")

    def test_errors_name_the_problem(self):
        for text, options, message in (
                (CSV, ["--label", "topic", "--continuous", "title"], "row 2"),
                (CSV, ["--label", "nope"], "no column 'nope'"),
                ("a,label\n1,x\n2\n", [], "row 3 has 1 fields")):
            self.assertIn(message, self.convert(text, *options, name="in.csv",
                                                status=1))

    def test_split_is_seeded_and_loses_nothing(self):
        lines = "".join("__label__c%d example number %d.\n" % (i % 3, i)
                        for i in range(40))
        self.convert(lines)
        whole = self.read("out.data").splitlines()
        self.convert(lines, "--test-fraction", "0.25", "--seed", "7")
        train = self.read("out.data").splitlines()
        test = self.read("out.test").splitlines()
        self.assertEqual(len(test), 10)
        self.assertEqual(sorted(train + test), sorted(whole))
        self.assertEqual(train, [r for r in whole if r in train])  # order kept
        self.convert(lines, "--test-fraction", "0.25", "--seed", "7")
        self.assertEqual(self.read("out.test").splitlines(), test)
        self.convert(lines, "--test-fraction", "0.25", "--seed", "8")
        self.assertNotEqual(self.read("out.test").splitlines(), test)


if __name__ == "__main__":
    unittest.main()
