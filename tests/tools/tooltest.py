"""Shared helpers of the tool tests: where the tools and the mhboost binary
are, running them, and a scratch directory per test."""

import importlib.machinery
import importlib.util
import os
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
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"),
                                                  os.path.join(TOOLS, name))
    module = importlib.util.module_from_spec(
        importlib.util.spec_from_loader(loader.name, loader))
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
        with open(self.path(name), "wb" if isinstance(data, bytes) else "w") as f:
            f.write(data)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read().decode("utf-8", "surrogateescape")
