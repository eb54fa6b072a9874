#!/usr/bin/env bash
# Runs the command-line cases against a built binary and compares what it
# prints, its exit status and the files it writes with the expected ones.
#
#   run_cli_tests.sh <mhboost binary> <cases dir> [case name ...]
#
# A case is a directory. It holds either `args` (one line of arguments, split
# by the shell, so quotes work) or `run` (a bash script given ./mhboost as its
# first argument), optionally `stdin`, any input files, and the expected
# results: expected.stdout, expected.stderr, expected.status, and
# expected.<name> for a file <name> the run leaves behind. A missing expected
# file means that result is not compared. The binary is always invoked as
# ./mhboost from inside a scratch copy of the case, so that argv[0] (printed
# in the usage line) does not depend on where the build put it.
#
# CLI_KEEP=1 keeps the scratch directories of failing cases. CLI_RECORD=1
# instead (re)writes the expected files of the named cases from the run (all
# of stdout, stderr and status for a case that has none yet, plus
# expected.<name> for each name in CLI_RECORD_FILES); use it only for output
# a person has checked line by line, as a recorded expectation is no longer
# an independent check.
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

# Under a sanitizer build: what is read lives until the process ends and is
# never freed, so leak reports would only add noise to the compared stderr.
# Any other sanitizer report still shows up there and fails the case.
export ASAN_OPTIONS="detect_leaks=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}"

# run_case <case dir> <scratch dir>: leaves the case's files in <scratch>/work
# and stdout, stderr and status in <scratch>.
run_case() {
  local dir=$1 out=$2 f
  mkdir -p "$out/work"
  for f in "$dir"/*; do
    [ -e "$f" ] || continue
    case ${f##*/} in
      args | run | expected.*) ;;
      *) cp -R "$f" "$out/work/" ;;
    esac
  done
  ln -s "$bin" "$out/work/mhboost"
  local input=/dev/null
  [ -f "$dir/stdin" ] && input=$dir/stdin
  if [ -f "$dir/run" ]; then
    (cd "$out/work" && timeout "${CLI_TIMEOUT:-60}" bash "$dir/run" ./mhboost)
  else
    (cd "$out/work" && eval "set -- $(head -n 1 "$dir/args")" &&
        timeout "${CLI_TIMEOUT:-60}" ./mhboost "$@")
  fi <"$input" >"$out/stdout" 2>"$out/stderr"
  echo $? >"$out/status"
}

# Where a run leaves the result named by an expected.<what> file.
result() {
  case $2 in
    stdout | stderr | status) echo "$1/$2" ;;
    *) echo "$1/work/$2" ;;
  esac
}

names=("$@")
if [ $# -eq 0 ]; then
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
  run_case "$dir" "$scratch"

  report=""
  if [ "${CLI_RECORD:-0}" = 1 ]; then
    targets=()
    for exp in "$dir"/expected.*; do
      [ -e "$exp" ] && targets+=("${exp##*/expected.}")
    done
    [ ${#targets[@]} -eq 0 ] && targets=(stdout stderr status)
    for what in "${targets[@]}" ${CLI_RECORD_FILES:-}; do
      got=$(result "$scratch" "$what")
      if [ -e "$got" ]; then
        cp "$got" "$dir/expected.$what" && echo "recorded $name/expected.$what"
      else
        report+="--- $what: not produced"$'\n'
      fi
    done
  fi
  for exp in "$dir"/expected.*; do
    [ -e "$exp" ] || continue
    what=${exp##*/expected.}
    got=$(result "$scratch" "$what")
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
