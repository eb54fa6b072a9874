#!/usr/bin/env bash
# Runs the tests of the tools in tools/ (tests/tools/test_*.py).
#
#   tests/tools/run_tool_tests.sh [mhboost binary]
#
# The binary (default: $MHBOOST_BIN, else build/mhboost) is needed only by
# the tests that train and classify; they are skipped without it. Ends with
# "N passed, M failed" and a non-zero status when anything failed.
set -u
here=$(cd "$(dirname "$0")" && pwd)
if [ $# -ge 1 ]; then
  MHBOOST_BIN=$(realpath "$1")
  export MHBOOST_BIN
fi
cd "$here" || exit 1
export PYTHONDONTWRITEBYTECODE=1
exec python3 - <<'EOF'
import sys
import unittest

suite = unittest.defaultTestLoader.discover(".", pattern="test_*.py")
result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(suite)
failed = len(result.failures) + len(result.errors) + \
    len(result.unexpectedSuccesses)
skipped = len(result.skipped)
passed = result.testsRun - failed - skipped
if skipped:
    print("%d skipped" % skipped)
print("%d passed, %d failed" % (passed, failed))
sys.exit(1 if failed else 0)
EOF
