#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/) from
the project's own inputs: the example task and the command-line cases. Model
seeds are models trained by the program itself on the fuzz target's task.

    fuzz/make_seeds.py <mhboost binary>

Each seed starts with the byte that the target reads as its setting (see the
target's source), then the file or text itself. Seeds are added beside the
inputs already there (the corpora also keep what campaigns found, merged
with libFuzzer's -merge=1).
"""
import glob
import hashlib
import os
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CORPUS = os.path.join(ROOT, "fuzz", "corpus")


def read(path):
    with open(path, "rb") as f:
        return f.read()


def put(target, content):
    d = os.path.join(CORPUS, target)
    os.makedirs(d, exist_ok=True)
    name = hashlib.sha1(content).hexdigest()[:16]
    with open(os.path.join(d, name), "wb") as f:
        f.write(content)


def cases(pattern):
    return sorted(glob.glob(os.path.join(ROOT, "tests", "cli", "cases", "*", pattern)))


def small(path, limit=8192):
    return os.path.getsize(path) <= limit


def names_seeds():
    for p in cases("*.names") + [os.path.join(ROOT, "examples", "news.names")]:
        put("names", read(p))
    put("names", b"x: discrete 3.\n")
    put("names", b"a, b.\nt: scoredtext.\nz: ignore.\nq: set.\n")


# Variants of the data target: 0 news.names, 1 tiny.names (also base.names),
# 2 parse.names, 3 scored text and set; dictionary mode = byte / 4 % 3.
def data_seeds():
    by_variant = {
        0: [os.path.join(ROOT, "examples", f) for f in ("news.data", "news.test")],
        1: [p for p in cases("*.data") + cases("*.test")
            if os.path.exists(p.rsplit(".", 1)[0] + ".names")
            and read(p.rsplit(".", 1)[0] + ".names") == read(cases("tiny.names")[0])],
        2: cases("parse.data") + cases("parse.test"),
    }
    by_variant[1] += [p for p in glob.glob(os.path.join(ROOT, "tests/cli/cases/data-errors/*.data"))
                      if small(p)]
    for variant, paths in by_variant.items():
        for p in paths:
            if not small(p):
                continue
            for dict_mode in (0, 1, 2):
                put("data", bytes([variant + 4 * dict_mode]) + read(p))
    scored = (b"goal 2 cup 1, the cup final, a.\n"
              b"budget 3 votes, parliament votes on the budget, b c.\n"
              b"?, ?, .\n")
    for dict_mode in (0, 1, 2):
        put("data", bytes([3 + 4 * dict_mode]) + scored)


def dict_seeds():
    texts = []
    for p in [os.path.join(ROOT, "examples", "news.data")]:
        for line in read(p).splitlines()[:12]:
            texts.append(line.split(b",")[0])
    dictionary = b"the a of cup\ngoal\tcity  new\n"
    for t in texts:
        put("dict", dictionary + b"\0" + t)
    put("dict", b"\0the cat sat")
    put("dict", b"cat\0the cat\tdog cat  sat")
    put("dict", b"Cat cat cat\n\0Cat cat CAT")


def options_seeds():
    vectors = [
        "-n 0 -S news", "-W 3 -n 5 -S x", "-z -p -S x", "-h", "-C -S x",
        "-N ngram -W 2 -E 0 -S x", "-N fgram -I 2 -D 1 -S x", "-m 1 0 0 1 -S x",
        "-R -V -L -B -A min -F max -M + -S x", "-T 1 -o -s -t 0.5 -f 0 -r 7 -S x",
        "-e", "-x", "-d", "-c", "-b", "-q", "-D 2", "-E -1", "-N xgram", "-N sgrams",
        "-I 0 -S x", "-A foo -F bar -M baz -S x", "-l -u -S x", "-nS x", "-sz -W2",
    ]
    for v in vectors:
        put("options", "\0".join(v.split(" ")).encode())


# Setting byte: enumerator = b % 3 (0 sparse, 1 ngram, 2 full),
# window = b / 3 % 8 + 1, scored = b / 24 % 2, scores wanted = b / 48 % 2.
def terms_seeds():
    texts = [b"a b c d", b"a b a c a b", b"x", b"", b"  a\t\tb\n", b"? b ? *",
             b"a?? ?b? c* d"]
    for line in read(os.path.join(ROOT, "examples", "news.data")).splitlines()[:6]:
        texts.append(line.split(b",")[0])
    scored = [b"x 0.5 y 2", b"goal 2 cup 1 final 0.25", b"a 1 b", b"? 1 b 2 * 3"]
    for t in texts:
        for which, window in ((0, 1), (0, 3), (1, 2), (2, 2), (0, 8)):
            put("terms", bytes([which + 3 * (window - 1)]) + t)
    for t in scored:
        for which, window in ((0, 2), (1, 2), (2, 1), (0, 3)):
            put("terms", bytes([which + 3 * (window - 1) + 24 + 48]) + t)
            put("terms", bytes([which + 3 * (window - 1) + 24]) + t)


MODEL_NAMES = (b"sports, politics, science.\n"
               b"headline: text.\nscored: scoredtext.\nlength: continuous.\n"
               b"source: wire, web, print.\n")
MODEL_DATA = (b"late goal wins the cup final, goal 2 cup 1, 12, wire, sports.\n"
              b"striker signs for the champions, signs 0.5, 9, web, sports.\n"
              b"parliament votes on the budget, budget 3 votes 1, 15, print, politics.\n"
              b"new telescope finds a planet, planet 2, ?, web, science.\n"
              b"the cup of the budget, cup 1 budget 1, 30, wire, sports politics.\n")
MODEL_TEST = (b"the cup final, cup 1, 10, wire, sports.\n"
              b"budget talks fail, budget 1.5, 20, print, politics.\n")
# The model target's settings, in its order.
SETTINGS = [("sgram", "2"), ("ngram", "2"), ("fgram", "2"),
            ("sgram", "3"), ("ngram", "1"), ("fgram", "1")]


def model_seeds(binary):
    work = tempfile.mkdtemp(prefix="mhboost-seeds.")
    try:
        stem = os.path.join(work, "model")
        for ext, content in (("names", MODEL_NAMES), ("data", MODEL_DATA),
                             ("test", MODEL_TEST)):
            with open(stem + "." + ext, "wb") as f:
                f.write(content)
        for i, (kind, window) in enumerate(SETTINGS):
            for extra in ([], ["-L"], ["-R"], ["-z"]):
                subprocess.run([binary, "-n", "6", "-S", stem, "-N", kind, "-W", window,
                                "-T", "1"] + extra, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, check=True)
                put("model", bytes([i]) + read(stem + ".shyp"))
                os.remove(stem + ".shyp")
    finally:
        shutil.rmtree(work)
    for p in cases("*.shyp"):
        put("model", bytes([0]) + read(p))
        put("model", bytes([4]) + read(p))
    put("model", bytes([0]) + b"0\n\n")
    put("model", bytes([3]) + b"1\n\n 1.0 Text:ORW:x\n\n0 0 0\n\n")


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_seeds.py <mhboost binary>")
    names_seeds()
    data_seeds()
    dict_seeds()
    options_seeds()
    terms_seeds()
    model_seeds(os.path.abspath(sys.argv[1]))


if __name__ == "__main__":
    main()
