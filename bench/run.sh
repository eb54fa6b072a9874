#!/usr/bin/env bash
# Benchmark of mhboost on real corpora, beside peer libraries.
#
#   bench/run.sh MHBOOST [--quick] [--only NAME,...] [--out DIR]
#                [--corpora DIR] [--no-peers] [--write-results]
#
# Builds the corpora into a cache when they are missing (the workplace's shared/corpora/make_corpora.py
# from data that Debian packages install; missing packages are installed with
# apt-get), runs mhboost on a fixed set of configurations, each in a
# directory of its own so that models never clash, then the peers
# (shared/corpora/peers.py: XGBoost stumps, scikit-learn AdaBoost, linear SVM), and
# prints Markdown tables.
#
#   --quick          a tenth of the rounds (peers: 10 rounds instead of 100)
#   --only LIST      configurations to run, by name or by task (stem), e.g.
#                    --only fortunes or --only debpkg-sgram3-T2,numeric-digits
#   --out DIR        where runs, logs and tables go (default bench/out/run)
#   --corpora DIR    corpora cache (default bench/out/corpora); an existing
#                    directory built by make_corpora.py can be reused
#   --no-peers       skip the peer libraries
#   --write-results  also write the report to bench/RESULTS.md
#   --repeat N       time every training run N times (default 5), in turns
#                    over the configurations, and report the run with the
#                    median time (this machine's speed drifts from minute to
#                    minute; turns keep -T 1 and -T 2 side by side)
#
# Only one program runs at a time, so that runs do not slow each other.
set -euo pipefail

BENCH=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# The corpus builder and the peer runner are the workplace's own scripts,
# found beside the repository (shared/corpora), not copies of ours.
SHARED_CORPORA=""
for d in "$BENCH/../../shared/corpora" "$BENCH/../../../shared/corpora"; do
  if [ -f "$d/make_corpora.py" ]; then SHARED_CORPORA=$(cd "$d" && pwd); break; fi
done
if [ -z "$SHARED_CORPORA" ]; then
  echo "bench: cannot find shared/corpora (make_corpora.py, peers.py) beside the repository" >&2
  exit 1
fi
REPO=$(dirname "$BENCH")
SYS_PYTHON=/usr/bin/python3

# name | task | options | rounds | rounds with --quick
CONFIGS=(
  "debpkg-ngram1-T2|debpkg|-N ngram -W 1 -T 2|200|20"
  "debpkg-ngram1-T1|debpkg|-N ngram -W 1 -T 1|200|20"
  "debpkg-sgram3-T2|debpkg|-W 3 -T 2|50|5"
  "debpkg-sgram3-T1|debpkg|-W 3 -T 1|50|5"
  "fortunes-ngram1|fortunes|-N ngram -W 1|200|20"
  "fortunes-ngram1-z|fortunes|-N ngram -W 1 -z|200|20"
  "fortunes-ngram1-R|fortunes|-N ngram -W 1 -R|200|20"
  "numeric-digits|numeric-digits||200|20"
  "mixed-affairs|mixed-affairs||200|20"
)
PEER_ROUNDS=100
PEER_ROUNDS_QUICK=10

usage() {
  sed -n '2,22p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
  exit "${1:-2}"
}

die() { echo "run.sh: $*" >&2; exit 1; }

COMMAND_LINE="bench/run.sh${*:+ $*}"
MHBOOST=""
QUICK=0
ONLY=""
OUT="$BENCH/out/run"
CORPORA="$BENCH/out/corpora"
PEERS=1
WRITE_RESULTS=0
REPEAT=5
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) QUICK=1 ;;
    --only) [ $# -ge 2 ] || die "--only needs a list"; ONLY=$2; shift ;;
    --only=*) ONLY=${1#--only=} ;;
    --out) [ $# -ge 2 ] || die "--out needs a directory"; OUT=$2; shift ;;
    --out=*) OUT=${1#--out=} ;;
    --corpora) [ $# -ge 2 ] || die "--corpora needs a directory"; CORPORA=$2; shift ;;
    --corpora=*) CORPORA=${1#--corpora=} ;;
    --no-peers) PEERS=0 ;;
    --write-results) WRITE_RESULTS=1 ;;
    --repeat) [ $# -ge 2 ] || die "--repeat needs a count"; REPEAT=$2; shift ;;
    --repeat=*) REPEAT=${1#--repeat=} ;;
    -h|--help) usage 0 ;;
    -*) die "unknown option $1 (see --help)" ;;
    *) [ -z "$MHBOOST" ] || die "one program only (got $MHBOOST and $1)"
       MHBOOST=$1 ;;
  esac
  shift
done
[ -n "$MHBOOST" ] || usage
[[ "$REPEAT" =~ ^[1-9][0-9]*$ ]] || die "--repeat needs a positive whole number (got $REPEAT)"
[ -x "$MHBOOST" ] || die "$MHBOOST is not an executable program (make build makes build/mhboost)"
MHBOOST=$(realpath "$MHBOOST")

# ---------------------------------------------------------------------------
# Selection

SELECTED=()
for c in "${CONFIGS[@]}"; do
  IFS='|' read -r name stem _ <<<"$c"
  if [ -z "$ONLY" ] || [[ ",$ONLY," == *",$name,"* ]] || [[ ",$ONLY," == *",$stem,"* ]]; then
    SELECTED+=("$c")
  fi
done
[ ${#SELECTED[@]} -gt 0 ] || die "--only $ONLY matches no configuration (names: $(for c in "${CONFIGS[@]}"; do printf '%s ' "${c%%|*}"; done))"
if [ -n "$ONLY" ]; then
  IFS=',' read -r -a wanted <<<"$ONLY"
  for w in "${wanted[@]}"; do
    found=0
    for c in "${CONFIGS[@]}"; do
      IFS='|' read -r name stem _ <<<"$c"
      [ "$w" = "$name" ] || [ "$w" = "$stem" ] && found=1
    done
    [ $found = 1 ] || die "--only: no configuration or task named $w"
  done
fi
STEMS=()
for c in "${SELECTED[@]}"; do
  IFS='|' read -r _ stem _ <<<"$c"
  [[ " ${STEMS[*]-} " == *" $stem "* ]] || STEMS+=("$stem")
done

# ---------------------------------------------------------------------------
# Packages: installed only when missing

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

APT_UPDATED=0
apt_update() {
  if [ $APT_UPDATED = 0 ]; then
    # the English lists carry the long package descriptions debpkg is made of
    as_root apt-get update -o Acquire::Languages=en
    APT_UPDATED=1
  fi
}

ensure_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "installing ${missing[*]}" >&2
    apt_update
    as_root env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y --no-install-recommends "${missing[@]}"
  fi
}

ensure_packages time python3
[ -x "$SYS_PYTHON" ] || die "$SYS_PYTHON is missing"

# ---------------------------------------------------------------------------
# Corpora

MISSING=()
for s in "${STEMS[@]}"; do
  for suffix in names data test; do
    if [ ! -f "$CORPORA/$s.$suffix" ]; then MISSING+=("$s"); break; fi
  done
done
if [ ${#MISSING[@]} -gt 0 ]; then
  pkgs=()
  for s in "${MISSING[@]}"; do
    case "$s" in
      debpkg*) pkgs+=(lz4) ;;
      fortunes) pkgs+=(fortunes fortunes-min) ;;
      wordnet) pkgs+=(wordnet-base) ;;
      numeric-*) pkgs+=(python3-sklearn) ;;
      mixed-*) pkgs+=(python3-statsmodels) ;;
    esac
  done
  [ ${#pkgs[@]} -eq 0 ] || ensure_packages "${pkgs[@]}"
  if [[ " ${MISSING[*]} " == *" debpkg"* ]]; then
    lists=$(apt-config shell D Dir::State::lists/d | sed -n "s/^D='\(.*\)'$/\1/p")
    if ! ls "${lists:-/var/lib/apt/lists}" 2>/dev/null | grep -q '_Translation-en'; then
      apt_update
    fi
  fi
  mkdir -p "$CORPORA"
  echo "building corpora ${MISSING[*]} in $CORPORA" >&2
  (IFS=,; "$SYS_PYTHON" "$SHARED_CORPORA/make_corpora.py" "$CORPORA" --only "${MISSING[*]}") >&2
fi
CORPORA=$(realpath "$CORPORA")

if [ $PEERS = 1 ]; then
  ensure_packages python3-numpy python3-scipy python3-sklearn python3-xgboost
fi

# ---------------------------------------------------------------------------
# Machine and load.  The CPU time that other processes take during the run is
# the machine's busy time (from /proc/stat) less what this script's children
# used (bash's `times`).

cpu_busy_ticks() {
  awk '/^cpu /{print $2+$3+$4+$7+$8; exit}' /proc/stat
}
# The CPU time of this shell's finished children, in seconds. `times` must
# run in this shell itself: in a pipe or a $(...) it would report the
# subshell's children, none. Its second line holds the children's user and
# system time, as 1m2.345s.
children_cpu_seconds() {
  times >"$OUT/times.txt"
  awk 'NR==2 {
    t = 0
    for (i = 1; i <= 2; i++) { split($i, a, "m"); sub("s", "", a[2]); t += a[1] * 60 + a[2] }
    printf "%.3f\n", t }' "$OUT/times.txt"
}

# only what an earlier run left here is removed, never the directory itself
mkdir -p "$OUT"
rm -rf "$OUT/runs" "$OUT/peers" "$OUT/meta.txt" "$OUT/mhboost.tsv" "$OUT/turns.tsv" "$OUT/RESULTS.md" "$OUT/times.txt" "$OUT/own0.txt" "$OUT/own1.txt" "$OUT/core_latency"
mkdir -p "$OUT/runs" "$OUT/peers"
OUT=$(realpath "$OUT")
META="$OUT/meta.txt"
TSV="$OUT/mhboost.tsv"
{
  echo "date=$(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu=$(lscpu | sed -n 's/^Model name: *//p' | head -1)"
  echo "cores=$(nproc)"
  echo "memory=$(awk '/^MemTotal/{printf "%.1f GiB", $2/1048576}' /proc/meminfo)"
  echo "uptime_start=$(uptime)"
  echo "load_start=$(cut -d' ' -f1 /proc/loadavg)"
  echo "mhboost=$MHBOOST"
  echo "commit=$(git -C "$REPO" describe --always --dirty 2>/dev/null || echo unknown)"
  echo "command=$COMMAND_LINE"
  echo "corpora=$CORPORA"
  echo "quick=$QUICK"
  echo "repeat=$REPEAT"
  echo "peer_python=$SYS_PYTHON"
} >"$META"

TICK=$(getconf CLK_TCK)
BUSY0=$(cpu_busy_ticks)
children_cpu_seconds >"$OUT/own0.txt"
OWN0=$(cat "$OUT/own0.txt")
WALL0=$EPOCHREALTIME

# ---------------------------------------------------------------------------
# mhboost

# run_timed DIR LABEL CMD...: runs CMD in DIR with its output in DIR/LABEL.out
# and .err; sets ELAPSED (seconds), PEAK_KIB and STATUS.
run_timed() {
  local dir=$1 label=$2
  shift 2
  local t0 t1
  t0=$EPOCHREALTIME
  set +e
  (cd "$dir" && /usr/bin/time -f '%M' -o "$label.mem" "$@" >"$label.out" 2>"$label.err")
  STATUS=$?
  set -e
  t1=$EPOCHREALTIME
  ELAPSED=$(awk -v a="$t0" -v b="$t1" 'BEGIN{printf "%.3f", b - a}')
  PEAK_KIB=$(tail -1 "$dir/$label.mem" 2>/dev/null | grep -E '^[0-9]+$' || echo 0)
}

# The time a cache line takes between two cores and back, measured before
# every training run: the host of a virtual machine may move its cores
# closer or further apart during the benchmark, and two-thread timings
# follow it (on this project's machine, about 60 ns against 340 ns).
PROBE=""
if [ "$(nproc)" -ge 2 ] && c++ -O2 -pthread -o "$OUT/core_latency" "$BENCH/core_latency.cc" 2>/dev/null; then
  PROBE="$OUT/core_latency"
fi
printf 'name\tturn\ttotal_s\tround_trip_ns\n' >"$OUT/turns.tsv"

printf 'name\ttask\toptions\trounds_asked\trounds\trules\toccurrences\tbuild_s\ttotal_s\tper_round_s\tpeak_kib\tbuild_peak_kib\ttrain_err\ttest_err\tstatus\tcommand\ttotals_s\n' >"$TSV"

# First every configuration's rule count, then the build and training runs
# in turns, then the report of each configuration's median run.
declare -A BUILD_TIMES BUILD_PEAK BUILD_STATUS RULES OCCURRENCES ROUNDS TOTALS
for c in "${SELECTED[@]}"; do
  IFS='|' read -r name stem opts rounds qrounds <<<"$c"
  [ $QUICK = 1 ] && rounds=$qrounds
  ROUNDS[$name]=$rounds
  dir="$OUT/runs/$name"
  mkdir -p "$dir"
  # the stem's files, linked: the model this run writes stays in its own dir
  for suffix in names data test; do
    ln -s "$CORPORA/$stem.$suffix" "$dir/$stem.$suffix"
  done

  # rules and occurrences, counted from the data (cached: counting the
  # sparse grams of debpkg takes a while)
  mode=sgram window=1
  read -r -a words <<<"$opts"
  for ((i = 0; i < ${#words[@]}; i++)); do
    case "${words[i]}" in
      -N) mode=${words[i+1]} ;;
      -W) window=${words[i+1]} ;;
    esac
  done
  echo "== $name: counting rules" >&2
  read -r rules occurrences < <("$SYS_PYTHON" "$BENCH/count_rules.py" "$CORPORA/$stem" \
      -N "$mode" -W "$window" --cache "$BENCH/out/rule-counts") || { rules=?; occurrences=?; }
  RULES[$name]=$rules OCCURRENCES[$name]=$occurrences
done

# Each turn times the build run (-n 0) and then the training run of every
# configuration; the time per round subtracts the median build time from
# the median training time, so that one slow start (a cold file cache, a
# busy moment) does not move it.
for ((turn = 1; turn <= REPEAT; turn++)); do
  for c in "${SELECTED[@]}"; do
    IFS='|' read -r name stem opts _ <<<"$c"
    rounds=${ROUNDS[$name]}
    dir="$OUT/runs/$name"
    # $opts is split into words on purpose
    echo "== $name: mhboost -S $stem${opts:+ $opts} -n 0 (run $turn of $REPEAT)" >&2
    run_timed "$dir" build "$MHBOOST" -S "$stem" $opts -n 0
    BUILD_TIMES[$name]="${BUILD_TIMES[$name]:-}${BUILD_TIMES[$name]:+ }$ELAPSED"
    BUILD_PEAK[$name]=$PEAK_KIB
    [ "${BUILD_STATUS[$name]:-0}" = 0 ] && BUILD_STATUS[$name]=$STATUS
    rm -f "$dir/$stem.shyp"
    echo "== $name: mhboost -S $stem${opts:+ $opts} -n $rounds (run $turn of $REPEAT)" >&2
    round_trip=""
    [ -n "$PROBE" ] && round_trip=$("$PROBE" 2>/dev/null || true)
    run_timed "$OUT/runs/$name" "train$turn" "$MHBOOST" -S "$stem" $opts -n "$rounds"
    printf '%s\t%s\t%s\t%s\n' "$name" "$turn" "$ELAPSED" "$round_trip" >>"$OUT/turns.tsv"
    echo "$STATUS" >"$OUT/runs/$name/train$turn.status"
    TOTALS[$name]="${TOTALS[$name]:-}${TOTALS[$name]:+ }$ELAPSED:$turn"
    echo "   ${ELAPSED}s" >&2
  done
done

for c in "${SELECTED[@]}"; do
  IFS='|' read -r name stem opts _ <<<"$c"
  rounds=${ROUNDS[$name]} rules=${RULES[$name]} occurrences=${OCCURRENCES[$name]}
  build_peak=${BUILD_PEAK[$name]} build_status=${BUILD_STATUS[$name]}
  build_s=$(tr ' ' '\n' <<<"${BUILD_TIMES[$name]}" | sort -g |
      awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }')
  dir="$OUT/runs/$name"
  # the run with the median time (the lower middle one of an even count)
  read -r median_turn all_totals < <(tr ' ' '\n' <<<"${TOTALS[$name]}" | sort -t: -k1,1g |
      awk -F: '{ t[NR] = $1; r[NR] = $2 } END {
        m = int((NR + 1) / 2); s = t[1]; for (i = 2; i <= NR; i++) s = s "," t[i]
        print r[m], s }')
  for ext in out err mem status; do
    cp "$dir/train$median_turn.$ext" "$dir/train.$ext"
  done
  total_s=$(tr ' ' '\n' <<<"${TOTALS[$name]}" | awk -F: -v m="$median_turn" '$2 == m { print $1 }')
  status=$(cat "$dir/train.status")
  # a run that failed in any turn stands for the configuration instead
  for ((turn = 1; turn <= REPEAT; turn++)); do
    if [ "$status" = 0 ] && [ "$(cat "$dir/train$turn.status")" != 0 ]; then
      for ext in out err mem status; do cp "$dir/train$turn.$ext" "$dir/train.$ext"; done
      status=$(cat "$dir/train.status")
    fi
  done
  peak=$(tail -1 "$dir/train.mem" 2>/dev/null | grep -E '^[0-9]+$' || echo 0)

  last=$(grep -E '^rnd +[0-9]+:' "$dir/train.out" | tail -1 || true)
  done_rounds=$(sed -nE 's/^rnd +([0-9]+):.*/\1/p' <<<"$last")
  train_err=$(sed -nE 's/.* train= *([0-9.eE+-]+|-?nan).*/\1/p' <<<"$last")
  test_err=$(sed -nE 's/.* test= *([0-9.eE+-]+|-?nan).*/\1/p' <<<"$last")
  if [ "$status" != 0 ] || [ "$build_status" != 0 ]; then
    state="failed (exit $status, build run exit $build_status)"
    echo "   $name failed; see $dir/train.err:" >&2
    tail -n 5 "$dir/train.err" "$dir/build.err" >&2 || true
  else
    state=ok
  fi
  per_round=$(awk -v t="$total_s" -v b="$build_s" -v n="${done_rounds:-0}" \
      'BEGIN{ if (n > 0) printf "%.5f", (t - b) / n; else print "" }')
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' \
    "$name" "$stem" "$opts" "$rounds" "${done_rounds:-0}" "$rules" "$occurrences" \
    "$build_s" "$total_s" "$per_round" "$peak" "$build_peak" "$train_err" "$test_err" \
    "$state" "mhboost -S $stem${opts:+ $opts} -n $rounds" "$all_totals" >>"$TSV"
  echo "   rules $rules, build ${build_s}s, total ${total_s}s, ${per_round}s/round, peak $((peak / 1024)) MiB, train $train_err, test $test_err" >&2
done

# ---------------------------------------------------------------------------
# Peers, one task at a time; peers.py runs each learner in a child of its own

if [ $PEERS = 1 ]; then
  prounds=$PEER_ROUNDS
  [ $QUICK = 1 ] && prounds=$PEER_ROUNDS_QUICK
  echo "peer_rounds=$prounds" >>"$META"
  for s in "${STEMS[@]}"; do
    echo "== peers on $s: peers.py $s -n $prounds" >&2
    set +e
    "$SYS_PYTHON" "$SHARED_CORPORA/peers.py" "$CORPORA" "$s" -n "$prounds" \
      --tsv "$OUT/peers/$s.tsv" >"$OUT/peers/$s.log" 2>&1
    pstatus=$?
    set -e
    [ $pstatus = 0 ] || echo "   peers.py on $s exited with $pstatus; see $OUT/peers/$s.log" >&2
    cat "$OUT/peers/$s.log" >&2
  done
fi

WALL1=$EPOCHREALTIME
BUSY1=$(cpu_busy_ticks)
children_cpu_seconds >"$OUT/own1.txt"
OWN1=$(cat "$OUT/own1.txt")
awk -v w0="$WALL0" -v w1="$WALL1" -v b0="$BUSY0" -v b1="$BUSY1" -v o0="$OWN0" \
    -v o1="$OWN1" -v hz="$TICK" 'BEGIN {
  wall = w1 - w0; busy = (b1 - b0) / hz; own = o1 - o0; other = busy - own
  if (other < 0) other = 0
  printf "wall_s=%.1f\nbusy_cpu_s=%.1f\nown_cpu_s=%.1f\nother_cores=%.2f\n", wall, busy, own, (wall > 0 ? other / wall : 0)
}' >>"$META"
echo "uptime_end=$(uptime)" >>"$META"

"$SYS_PYTHON" "$BENCH/report.py" "$OUT" >"$OUT/RESULTS.md"
cat "$OUT/RESULTS.md"
if [ $WRITE_RESULTS = 1 ]; then
  cp "$OUT/RESULTS.md" "$BENCH/RESULTS.md"
  echo "wrote $BENCH/RESULTS.md" >&2
fi
