#!/usr/bin/env bash
# Builds the fuzz targets (libFuzzer with AddressSanitizer and
# UndefinedBehaviorSanitizer, linking the project's sources directly) and
# runs them on the committed corpora.
#
#   fuzz/run.sh [-r RUNS] [TARGET ...]      each target for RUNS executions
#                                           (default 2000: a smoke run)
#   fuzz/run.sh -t SECONDS [TARGET ...]     a campaign: each target for about
#                                           SECONDS, in processes of at most
#                                           60 s each
#   fuzz/run.sh -b                          build only
#
# Targets: names data dict model options terms (default: all).
# Work files go to $FUZZ_BUILD (default build-fuzz/): objects, binaries,
# the growing work corpora (corpus/<target>), and what a run found
# (findings/<target>/crash-*, timeout-*, oom-*). Exit status 1 when any
# target found something.
#
# The readers keep state in their modules that cannot all be reset from
# outside (the word ids of the occurrence counter, the word sets of the
# dictionaries read, the records that are never freed), so a campaign runs
# each target as a series of processes of bounded length rather than one
# long process; memory stays bounded and each process starts afresh.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

runs=2000
seconds=0
build_only=0
while getopts "r:t:b" opt; do
  case $opt in
    r) runs=$OPTARG ;;
    t) seconds=$OPTARG ;;
    b) build_only=1 ;;
    *) echo "usage: $0 [-r RUNS | -t SECONDS | -b] [TARGET ...]" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
all_targets=(names data dict model options terms)
if [ $# -gt 0 ]; then targets=("$@"); else targets=("${all_targets[@]}"); fi

out=${FUZZ_BUILD:-$root/build-fuzz}
mkdir -p "$out/obj" "$out/bin"
CXX=${FUZZ_CXX:-clang++}

# --- tools: clang with the libFuzzer runtime ---------------------------------
have_libfuzzer() {
  command -v "$CXX" >/dev/null 2>&1 || return 1
  local probe=$out/probe
  printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' \
    >"$probe.cc"
  "$CXX" -fsanitize=fuzzer,address,undefined "$probe.cc" -o "$probe" >/dev/null 2>&1
}
if ! have_libfuzzer; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y clang libclang-rt-14-dev
  have_libfuzzer || { echo "fuzz: cannot build a libFuzzer binary with $CXX" >&2; exit 2; }
fi

# --- build -------------------------------------------------------------------
flags=(-std=c++20 -g -O1 -fno-omit-frame-pointer -ffp-contract=off -pthread
       -fsanitize=address,undefined -fno-sanitize-recover=all
       -I"$root/src" -I"$root/fuzz")
sources=()
for f in "$root"/src/*.cc; do
  [ "$(basename "$f")" = main.cc ] || sources+=("$f")
done
# Objects are rebuilt when their source or any header is newer.
newest_header=$(ls -t "$root"/src/*.h | head -n 1)
build_obj() {
  local src=$1 obj=$out/obj/$(basename "${1%.cc}").o
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ "$newest_header" -nt "$obj" ]; then
    "$CXX" "${flags[@]}" -fsanitize=fuzzer-no-link -c "$src" -o "$obj"
  fi
}
export -f build_obj
export CXX out newest_header
export FLAGS_STR="${flags[*]}"
# Two at a time: the machines this runs on have two cores.
printf '%s\n' "${sources[@]}" | xargs -P 2 -I{} bash -c \
  'flags=($FLAGS_STR); build_obj "$1"' _ {}
objs=()
for f in "${sources[@]}"; do objs+=("$out/obj/$(basename "${f%.cc}").o"); done
for t in "${targets[@]}"; do
  src=$root/fuzz/${t}_fuzz.cc
  [ -f "$src" ] || { echo "fuzz: no target $t" >&2; exit 2; }
  bin=$out/bin/${t}_fuzz
  stale=0
  [ -f "$bin" ] || stale=1
  for o in "$src" "$root/fuzz/fuzz_common.h" "${objs[@]}"; do
    [ "$o" -nt "$bin" ] 2>/dev/null && stale=1
  done
  if [ $stale = 1 ]; then
    "$CXX" "${flags[@]}" -fsanitize=fuzzer "$src" "${objs[@]}" -o "$bin"
  fi
done
[ $build_only = 1 ] && exit 0

# --- run ---------------------------------------------------------------------
max_len() {
  case $1 in
    options) echo 512 ;;
    terms) echo 2048 ;;
    dict) echo 4096 ;;
    *) echo 8192 ;;
  esac
}
# Records are never freed by design: leak reports would only be noise.
export ASAN_OPTIONS="detect_leaks=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

found=0
passed=0
failed=0
for t in "${targets[@]}"; do
  bin=$out/bin/${t}_fuzz
  seeds=$root/fuzz/corpus/$t
  work=$out/corpus/$t
  findings=$out/findings/$t
  mkdir -p "$work" "$findings"
  args=(-max_len="$(max_len "$t")" -timeout=10 -rss_limit_mb=2048
        -close_fd_mask=3 -detect_leaks=0 -print_final_stats=1
        -artifact_prefix="$findings/")
  [ -f "$root/fuzz/dicts/$t.dict" ] && args+=(-dict="$root/fuzz/dicts/$t.dict")
  # 'x: discrete N.' asks for N value slots at once (16 GiB of address
  # space for the largest N); the pages are never touched, so only the
  # resident size is limited.
  [ "$t" = names ] && args+=(-malloc_limit_mb=17000)
  log=$out/$t.log
  start=$(date +%s)
  status=0
  if [ "$seconds" -gt 0 ]; then
    : >"$log"
    while [ $(($(date +%s) - start)) -lt "$seconds" ]; do
      left=$((seconds - ($(date +%s) - start)))
      slice=$((left < 60 ? left : 60))
      [ "$slice" -lt 1 ] && break
      "$bin" "${args[@]}" -max_total_time="$slice" "$work" "$seeds" >>"$log" 2>&1 ||
        { status=$?; break; }
    done
  else
    "$bin" "${args[@]}" -runs="$runs" "$work" "$seeds" >"$log" 2>&1 || status=$?
  fi
  execs=$(awk '/stat::number_of_executed_units/ {s += $2} END {print s + 0}' "$log")
  wall=$(($(date +%s) - start))
  if [ "$status" -ne 0 ]; then
    found=1
    failed=$((failed + 1))
    echo "FAIL $t: exit status $status after $execs executions, ${wall}s (log: $log)"
    grep -E 'ERROR|runtime error|fuzz: |Test unit written|SUMMARY' "$log" | head -n 20 | sed 's/^/     /'
  else
    passed=$((passed + 1))
    echo "ok   $t: $execs executions, ${wall}s, corpus $(ls "$work" | wc -l) + $(ls "$seeds" | wc -l) seeds"
  fi
done
echo "fuzz: $passed passed, $failed failed"
exit $found
