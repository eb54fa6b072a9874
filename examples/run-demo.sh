#!/usr/bin/env bash
# Trains on the example news headlines, then classifies the test headlines
# one at a time through standard input with the stored model.
#
#   examples/run-demo.sh <mhboost binary>
#
# Works in examples/out/ (a scratch copy), so the data set stays untouched.
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 <mhboost binary>" >&2
  exit 2
fi
bin=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
out=$here/out

rm -rf "$out"
mkdir -p "$out"
cp "$here"/news.names "$here"/news.data "$here"/news.test "$out"/
cd "$out"

echo "== Training: 20 rounds over word pairs (mhboost -S news -n 20 -W 2)"
echo "   each line: round, weak hypothesis loss, bound, test error, training error"
"$bin" -S news -n 20 -W 2
echo
echo "== Model written to examples/out/news.shyp ($(head -n 1 news.shyp) rules)"
echo
echo "== Classifying news.test through standard input (mhboost -S news -W 2 -C)"
echo "   each line: the true labels (sports politics science business) as 0/1,"
echo "   then the score of each class; the highest score is the prediction"
# The final error summary comes on standard error.
"$bin" -S news -W 2 -C < news.test
