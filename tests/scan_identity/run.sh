#!/usr/bin/env bash
# The fast rule scan must give byte-identical round lines and model files to
# the literal one-rule-at-a-time scan, for every learner and thread count:
# on a small set built for ties and shared lists, on the example task, and on
# slices of real corpora (package descriptions, with one and with several
# labels per example, fortunes, handwritten digits, a survey of discrete and
# numeric answers), which are large enough for the scan's paths for long
# lists, large threshold sweeps and many labels.
#   run.sh MHBOOST MHBOOST_REFERENCE
set -u
fast=$(realpath "$1")
ref=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$here/make_data.py" "$work" adv 7
cp "$here/../../examples/news."* "$work/"
for f in "$here"/corpora/*; do
  name=$(basename "$f")
  case "$name" in
    *.gz) gzip -dc "$f" > "$work/${name%.gz}" ;;
    *) cp "$f" "$work/" ;;
  esac
done

passed=0
failed=0
check() {  # stem, options...
  local stem=$1
  shift
  (cd "$work" && "$ref" -S "$stem" "$@" > ref.out 2> /dev/null && cp "$stem.shyp" ref.shyp)
  for t in 1 2 7; do
    (cd "$work" && "$fast" -S "$stem" "$@" -T $t > fast.out 2> /dev/null)
    if cmp -s "$work/ref.out" "$work/fast.out" && cmp -s "$work/ref.shyp" "$work/$stem.shyp"; then
      passed=$((passed + 1))
    else
      failed=$((failed + 1))
      echo "FAIL: $stem $* -T $t"
      diff "$work/ref.out" "$work/fast.out" | head -5
    fi
  done
}

for stem in adv news; do
  check "$stem" -n 12 -W 3
  check "$stem" -n 12 -N ngram -W 2
  check "$stem" -n 10 -R -W 2
  check "$stem" -n 10 -z
  check "$stem" -n 10 -z -R
  check "$stem" -n 10 -l
  check "$stem" -n 8 -L
  check "$stem" -n 8 -u -W 2
done
check debpkg -n 30 -N ngram -W 1
check debpkg -n 8 -W 3
check debpkg -n 12 -R -W 2
check debpkg -n 12 -z
check debpkg-multi -n 15 -W 2
check debpkg-multi -n 12 -l
check debpkg-multi -n 10 -z -R
check fortunes -n 20 -N ngram -W 2
check fortunes -n 15 -z -R
check numeric-digits -n 25
check numeric-digits -n 12 -z
check numeric-digits -n 10 -L
check mixed-affairs -n 25 -R
check mixed-affairs -n 15 -l
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
