"""Shared helpers of the tool tests: where the tools and the mhboost binary
are, running them, and an independent reader of the names and data files
used to check what mhboost-convert writes."""

import importlib.machinery
import importlib.util
import os
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__))))
TOOLS = os.path.join(ROOT, "tools")
DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")


def binary():
    """The built mhboost (MHBOOST_BIN, else build/mhboost), or None."""
    path = os.environ.get("MHBOOST_BIN") or os.path.join(ROOT, "build",
                                                         "mhboost")
    return path if os.access(path, os.X_OK) else None


def needs_binary(test):
    return unittest.skipIf(binary() is None,
                           "no mhboost binary (build/mhboost)")(test)


def load_tool(name):
    """Imports a tool script (they have no .py suffix) as a module."""
    path = os.path.join(TOOLS, name)
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"), path)
    module_spec = importlib.util.spec_from_loader(loader.name, loader)
    module = importlib.util.module_from_spec(module_spec)
    loader.exec_module(module)
    return module


def run(args, stdin=b"", cwd=None):
    """Runs a command; returns (status, stdout bytes, stderr text)."""
    p = subprocess.run(args, input=stdin, cwd=cwd, capture_output=True)
    return p.returncode, p.stdout, p.stderr.decode("utf-8", "replace")


def run_tool(name, *args, stdin=b"", cwd=None):
    return run([sys.executable, os.path.join(TOOLS, name)] + list(args),
               stdin=stdin, cwd=cwd)


class TempDirTest(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory()
        self.dir = self._tmp.name

    def tearDown(self):
        self._tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, data):
        mode = "wb" if isinstance(data, bytes) else "w"
        with open(self.path(name), mode) as f:
            f.write(data)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read().decode("utf-8", "surrogateescape")


# ---------------------------------------------------------------------------
# The field grammar of the names and data files, written from its description
# rather than from either implementation: fields end at ',' or ':', at a
# period followed by white space or by a comment, or at a comment ('|', '%',
# to the end of the line); a backslash takes the next character literally; a
# period followed by anything else is kept with that character; leading white
# space and whole comment lines are skipped, trailing white space removed.

SPACE = " \t\n\v\f\r"


def fields(text):
    """Every field of text, in order."""
    out, i, n = [], 0, len(text)
    while True:
        while i < n and (text[i] in SPACE or text[i] in "|%"):
            if text[i] in "|%":
                j = text.find("\n", i)
                i = n if j < 0 else j + 1
            else:
                i += 1
        if i >= n:
            return out
        buf = []
        while i < n:
            c = text[i]
            i += 1
            if c in ",:":
                break
            if c in "|%":
                j = text.find("\n", i)
                i = n if j < 0 else j + 1
                break
            if c == "\\":
                if i < n:
                    buf.append(text[i])
                    i += 1
            elif c == ".":
                if i >= n or text[i] in SPACE:
                    i += 1
                    break
                if text[i] in "|%":
                    j = text.find("\n", i)
                    i = n if j < 0 else j + 1
                    break
                buf.append(".")
                if text[i] == "\\" and i + 1 < n:
                    buf.append(text[i + 1])
                    i += 2
                else:
                    buf.append(text[i])
                    i += 1
            else:
                buf.append(c)
        out.append("".join(buf).rstrip(SPACE))


def squeeze(text):
    return re.sub("[" + SPACE + "]+", " ", text).strip(" ")


def read_names(text):
    """(classes, [(attribute, kind or list of values)]) of a names file.

    Works on the declarations line by line: each line of a file written by
    mhboost-convert holds one declaration ending in a period."""
    lines = [l for l in text.split("\n") if l.strip() and l[0] not in "|%"]
    classes = fields(lines[0])
    attributes = []
    for line in lines[1:]:
        f = fields(line)
        attributes.append((f[0], f[1] if len(f) == 2 else f[1:]))
    return classes, attributes


def read_data(text, n_attributes):
    """[(values, labels)] of a data file: values as read, texts squeezed."""
    f = fields(text)
    per = n_attributes + 1
    assert len(f) % per == 0, "%d fields for %d per example" % (len(f), per)
    examples = []
    for i in range(0, len(f), per):
        label_field = f[i + n_attributes]
        labels = label_field.split(" ") if label_field else []
        examples.append((f[i:i + n_attributes], labels))
    return examples
