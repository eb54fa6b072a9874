#!/usr/bin/env bash
# Runs the tests of the tools in tools/ (tests/tools/test_*.py) with the given
# mhboost binary (default: $MHBOOST_BIN, else build/mhboost); the tests that
# train and classify are skipped without one.
set -u
if [ $# -ge 1 ]; then
  MHBOOST_BIN=$(realpath "$1")
  export MHBOOST_BIN
fi
cd "$(dirname "$0")" || exit 1
PYTHONDONTWRITEBYTECODE=1 exec python3 -m unittest discover -v -p 'test_*.py'
