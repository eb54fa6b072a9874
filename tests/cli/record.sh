#!/usr/bin/env bash
# (Re)writes the expected results of one case from a run of the binary.
#
#   record.sh <mhboost binary> <case dir> [file name ...]
#
# Use it only for output a person has checked line by line: a recorded
# expectation is no longer an independent check. It rewrites the expected.*
# files the case already has (all of stdout, stderr and status for a case that
# has none yet), plus expected.<name> for every file name given.
set -u

if [ $# -lt 2 ]; then
  echo "usage: $0 <mhboost binary> <case dir> [file name ...]" >&2
  exit 2
fi
bin=$(realpath "$1")
dir=$(realpath "$2")
shift 2
. "$(dirname "$(realpath "$0")")/lib.sh"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/mhboost-rec.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
run_case "$bin" "$dir" "$scratch/work"

targets=()
for exp in "$dir"/expected.*; do
  [ -e "$exp" ] && targets+=("${exp##*/expected.}")
done
[ ${#targets[@]} -eq 0 ] && targets=(stdout stderr status)
targets+=("$@")

for what in "${targets[@]}"; do
  case $what in
    stdout | stderr | status) src=$scratch/$what ;;
    *) src=$scratch/work/$what ;;
  esac
  if [ -e "$src" ]; then
    cp "$src" "$dir/expected.$what"
    echo "recorded expected.$what"
  else
    echo "$what was not produced; expected.$what left as it was" >&2
  fi
done
