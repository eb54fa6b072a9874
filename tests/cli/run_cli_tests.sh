#!/usr/bin/env bash
# Runs the command-line cases against a built binary and compares what it
# prints, its exit status and the files it writes with the expected ones.
#
#   run_cli_tests.sh <mhboost binary> <cases dir> [case name ...]
#
# Set CLI_KEEP=1 to keep the scratch directories of failing cases.
set -u

if [ $# -lt 2 ]; then
  echo "usage: $0 <mhboost binary> <cases dir> [case name ...]" >&2
  exit 2
fi
bin=$(realpath "$1")
cases=$(realpath "$2")
shift 2
if [ ! -x "$bin" ]; then
  echo "$0: no executable at $bin" >&2
  exit 2
fi
. "$(dirname "$(realpath "$0")")/lib.sh"

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for d in "$cases"/*/; do
    d=${d%/}
    names+=("${d##*/}")
  done
fi

passed=0
failed=0
for name in "${names[@]}"; do
  dir=$cases/$name
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/mhboost-cli.XXXXXX")
  if [ ! -f "$dir/args" ] && [ ! -f "$dir/run" ]; then
    echo "FAIL $name: neither args nor run in $dir"
    failed=$((failed + 1))
    rm -rf "$scratch"
    continue
  fi
  run_case "$bin" "$dir" "$scratch/work"

  report=""
  for exp in "$dir"/expected.*; do
    [ -e "$exp" ] || continue
    what=${exp##*/expected.}
    case $what in
      stdout | stderr | status) got=$scratch/$what ;;
      *) got=$scratch/work/$what ;;
    esac
    if [ ! -e "$got" ]; then
      report+="--- $what: not produced"$'\n'
    elif ! d=$(diff -u --label "expected.$what" --label "$what" "$exp" "$got"); then
      report+="$d"$'\n'
    fi
  done

  if [ -z "$report" ]; then
    echo "ok   $name"
    passed=$((passed + 1))
    rm -rf "$scratch"
  else
    echo "FAIL $name"
    printf '%s' "$report" | sed 's/^/     /'
    failed=$((failed + 1))
    if [ "${CLI_KEEP:-0}" = 1 ]; then
      echo "     (kept in $scratch)"
    else
      rm -rf "$scratch"
    fi
  fi
done

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
