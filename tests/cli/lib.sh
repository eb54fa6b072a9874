# Shared by run_cli_tests.sh and record.sh: how one command-line case is run.
#
# A case is a directory. It holds either `args` (one line of arguments, split
# by the shell, so quotes work) or `run` (a bash script given ./mhboost as its
# first argument), optionally `stdin`, any input files, and the expected
# results: expected.stdout, expected.stderr, expected.status, and
# expected.<name> for a file <name> the run leaves behind. A missing expected
# file means that result is not compared.
#
# The binary is always invoked as ./mhboost from inside a scratch copy of the
# case, so that argv[0] (printed in the usage line) does not depend on where
# the build put it.

CLI_TIMEOUT=${CLI_TIMEOUT:-60}

# Under a sanitizer build: what is read lives until the process ends and is
# never freed, so leak reports would only add noise to the compared stderr.
# Any other sanitizer report still shows up there and fails the case.
export ASAN_OPTIONS="detect_leaks=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}"

# run_case <absolute binary> <case dir> <work dir>
# Leaves stdout, stderr and status in <work dir>/../{stdout,stderr,status}.
run_case() {
  local bin=$1 case_dir=$2 work=$3 f base
  mkdir -p "$work"
  for f in "$case_dir"/*; do
    [ -e "$f" ] || continue
    base=${f##*/}
    case $base in
      args | run | expected.*) ;;
      *) cp -R "$f" "$work/" ;;
    esac
  done
  ln -s "$bin" "$work/mhboost"

  local input=/dev/null
  [ -f "$case_dir/stdin" ] && input=$case_dir/stdin
  local out=$work/../stdout err=$work/../stderr status
  if [ -f "$case_dir/run" ]; then
    (cd "$work" && timeout "$CLI_TIMEOUT" bash "$case_dir/run" ./mhboost \
        <"$input" >"$out" 2>"$err")
    status=$?
  else
    local line
    line=$(head -n 1 "$case_dir/args" 2>/dev/null)
    (cd "$work" && eval "set -- $line" &&
        timeout "$CLI_TIMEOUT" ./mhboost "$@" <"$input" >"$out" 2>"$err")
    status=$?
  fi
  echo "$status" >"$work/../status"
}
