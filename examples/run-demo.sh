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

echo "== Training: 20 rounds, terms of one or two words (mhboost -S news -n 20 -W 2)"
echo "   each line: round, weak hypothesis loss, bound, test error, training error"
"$bin" -S news -n 20 -W 2
echo
echo "== Model written to examples/out/news.shyp ($(head -n 1 news.shyp) rules)"
echo
echo "== Classifying news.test through standard input (mhboost -S news -W 2 -C)"
# The program prints, per example, its labels as 0/1 and one score per class
# (kept in predictions.txt); the highest score is the prediction. Shown here
# beside each headline with the class names, followed by the error summary
# that the program prints on standard error.
if ! "$bin" -S news -W 2 -C < news.test > predictions.txt 2> classify.err; then
  cat classify.err >&2
  exit 1
fi
classes=$(grep -v '^|' news.names | head -n 1 | tr -d ',.')
grep -v '^|' news.test | cut -d, -f1 | paste -d '\t' - predictions.txt |
  awk -F '\t' -v names="$classes" '
    BEGIN { k = split(names, cls, " ") }
    {
      split($2, f, " ")
      truth = ""
      best = 1
      for (l = 1; l <= k; l++) {
        if (f[l] == 1) truth = truth " " cls[l]
        if (f[k + l] + 0 > f[k + best] + 0) best = l
      }
      printf "%-44s correct:%-18s predicted: %s\n", $1, truth, cls[best]
    }'
grep "Test error" classify.err
