#!/usr/bin/env bash
# Measures how far the program goes on large inputs: the longest field, the
# longest text the sparse enumerator takes, many distinct terms, classes,
# attributes and examples. Prints one line per run with its exit status,
# wall time and peak resident size (as /usr/bin/time reports them) and the
# last line the program wrote to standard error.
#
#   fuzz/limits.sh <mhboost binary> [work dir]
#
# With LIMITS_ONLY=<word> in the environment only the runs whose label
# holds that word are made (the inputs are all written regardless).
#
# The figures in README.md ("Limits and bad input") come from this script.
set -euo pipefail
bin=$(realpath "$1")
work=${2:-$(mktemp -d "${TMPDIR:-/tmp}/mhboost-limits.XXXXXX")}
mkdir -p "$work"
cd "$work"

run() {  # run <label> <args...>; LIMITS_ONLY=<word> runs matching labels only
  local label=$1
  shift
  case $label in *"${LIMITS_ONLY:-}"*) ;; *) return 0 ;; esac
  local status=0
  /usr/bin/time -f "%e s %M KB" -o time.txt "$bin" "$@" >/dev/null 2>err.txt || status=$?
  printf '%-44s status %3d  %-22s %s\n' "$label" "$status" "$(tail -n 1 time.txt)" \
    "$(grep -v '^Command exited' err.txt | tail -n 1)"
}

python3 - <<'EOF'
import random

def names(path, classes, attrs):
    with open(path, "w") as f:
        f.write(", ".join(classes) + ".\n")
        for a in attrs:
            f.write(a + ".\n")

# The longest field: 1048575 characters, and one more.
for stem, n in (("field", 1048575), ("field1", 1048576)):
    names(stem + ".names", ["a", "b"], ["t: text"])
    word = "abcdefg "
    text = (word * (n // len(word) + 1))[:n - 1] + "z"
    with open(stem + ".data", "w") as f:
        f.write(text + ", a.\n")

# Sparse grams: the longest text the enumerator takes (2W + 262144
# characters for window W), and one more, for W = 1 and W = 4.
for w in (1, 4):
    for extra in (0, 1):
        stem = "sparse%d_%d" % (w, extra)
        n = 2 * w + 262144 + extra
        names(stem + ".names", ["a", "b"], ["t: text"])
        words = []
        length = 0
        i = 0
        while length < n:
            token = "w%d " % (i % 5000)
            words.append(token)
            length += len(token)
            i += 1
        # The stored text is the field plus one trailing blank.
        text = "".join(words)[:n - 1]
        if text.endswith(" "):
            text = text[:-1] + "x"
        with open(stem + ".data", "w") as f:
            f.write(text + ", a.\n")

# Distinct terms: examples of ten words drawn from a vocabulary of V words.
rng = random.Random(1)
for v in (100000, 1000000, 4000000):
    stem = "vocab%d" % v
    names(stem + ".names", ["a", "b", "c"], ["t: text"])
    with open(stem + ".data", "w") as f:
        for i in range(v // 5):
            ws = " ".join("v%d" % (((i * 5 + j) * 7919) % v) for j in range(10))
            f.write("%s, %s.\n" % (ws, "abc"[i % 3]))

# Many classes, many attributes, many examples.
for k in (100, 1000):
    stem = "classes%d" % k
    cls = ["c%d" % i for i in range(k)]
    names(stem + ".names", cls, ["t: text", "x: continuous"])
    with open(stem + ".data", "w") as f:
        for i in range(5000):
            f.write("w%d w%d w%d, %d, %s.\n" % (i % 97, i % 89, i % 31, i % 50,
                                                 " ".join(cls[(i * j) % k] for j in (1, 7))))
for a in (100, 1000):
    stem = "attrs%d" % a
    names(stem + ".names", ["a", "b"], ["x%d: continuous" % i for i in range(a)])
    with open(stem + ".data", "w") as f:
        for i in range(2000):
            f.write(", ".join(str((i * (j + 3)) % 101) for j in range(a)) + ", %s.\n" % "ab"[i % 2])
for m in (100000, 1000000):
    stem = "examples%d" % m
    names(stem + ".names", ["a", "b", "c"], ["t: text", "s: wire, web, print", "x: continuous"])
    with open(stem + ".data", "w") as f:
        for i in range(m):
            f.write("w%d u%d z%d, %s, %d, %s.\n" % (i % 2000, i % 577, i % 13,
                                                   ("wire", "web", "print")[i % 3], i % 1000,
                                                   "abc"[i % 3]))
EOF

run "field 1048575 chars, ngram W=1, 1 round" -n 1 -N ngram -S field
run "field 1048576 chars" -n 1 -N ngram -S field1
run "sparse W=1, text 262146 chars, 1 round" -n 1 -W 1 -S sparse1_0
run "sparse W=1, text 262147 chars" -n 1 -W 1 -S sparse1_1
run "sparse W=4, text 262152 chars, 1 round" -n 1 -W 4 -S sparse4_0
run "sparse W=4, text 262153 chars" -n 1 -W 4 -S sparse4_1
for v in 100000 1000000 4000000; do
  run "vocabulary $v words, W=1, 10 rounds" -n 10 -S vocab$v
done
run "vocabulary 1000000 words, W=2, 10 rounds" -n 10 -W 2 -S vocab1000000
for k in 100 1000; do run "$k classes, 5000 examples, 10 rounds" -n 10 -S classes$k; done
for a in 100 1000; do run "$a continuous attributes, 2000 ex., 10 rounds" -n 10 -S attrs$a; done
for m in 100000 1000000; do run "$m examples, 3 attributes, 10 rounds" -n 10 -S examples$m; done
