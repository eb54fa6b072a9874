"""Shared helpers of the tool tests: the mhboost binary, running a tool or
a command, and a scratch directory per test."""

import os
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__))))
DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")


def binary():
    """The built mhboost (MHBOOST_BIN, else build/mhboost), or None."""
    path = os.environ.get("MHBOOST_BIN") or os.path.join(ROOT, "build",
                                                         "mhboost")
    return path if os.access(path, os.X_OK) else None


needs_binary = unittest.skipIf(binary() is None,
                               "no mhboost binary (build/mhboost)")


def run(args, stdin=b""):
    """Runs a command; returns (status, stdout bytes, stderr text)."""
    p = subprocess.run(args, input=stdin, capture_output=True)
    return p.returncode, p.stdout, p.stderr.decode("utf-8", "replace")


def run_tool(name, *args, stdin=b""):
    return run([sys.executable, os.path.join(ROOT, "tools", name)] +
               list(args), stdin=stdin)


class TempDirTest(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory()
        self.dir = self._tmp.name

    def tearDown(self):
        self._tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, data):
        with open(self.path(name), "wb" if isinstance(data, bytes) else "w") as f:
            f.write(data)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read().decode("utf-8", "surrogateescape")
