#!/usr/bin/env python3
"""Cuts the slices of the real corpora that the scan identity test trains on
out of a directory built by the workplace's make_corpora.py, and writes them
gzipped into tests/scan_identity/corpora/.

    make_slices.py CORPORA_DIR [OUT_DIR]

Each slice keeps the task's names file whole and the first examples of its
training and test files (one example per line in these corpora). The sizes
are chosen so that the slices reach the scan's large-data paths: lists long
enough to be summed in bands, threshold sweeps of more than 8,192
example-label pairs (which go to all threads), several labels per example
(debpkg-multi), and many sparse grams that share a list.
"""
import gzip
import os
import sys

# stem: (training examples, test examples)
SLICES = {
    "debpkg": (1200, 300),
    "debpkg-multi": (700, 200),
    "fortunes": (1500, 400),
    "numeric-digits": (900, 200),
    "mixed-affairs": (1200, 300),
}


def first_lines(path, n):
    with open(path, encoding="utf-8") as f:
        lines = []
        for line in f:
            if len(lines) == n:
                break
            lines.append(line)
    if len(lines) < n:
        sys.exit("%s: only %d examples, %d wanted" % (path, len(lines), n))
    return "".join(lines)


def write_gz(path, text):
    # mtime 0 keeps the bytes the same from one run to the next.
    with open(path, "wb") as raw:
        with gzip.GzipFile(fileobj=raw, mode="wb", mtime=0) as f:
            f.write(text.encode("utf-8"))


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    src = sys.argv[1]
    out = sys.argv[2] if len(sys.argv) == 3 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "corpora")
    os.makedirs(out, exist_ok=True)
    for stem, (n_train, n_test) in SLICES.items():
        with open(os.path.join(src, stem + ".names"), encoding="utf-8") as f:
            names = f.read()
        with open(os.path.join(out, stem + ".names"), "w", encoding="utf-8") as f:
            f.write(names)
        write_gz(os.path.join(out, stem + ".data.gz"),
                 first_lines(os.path.join(src, stem + ".data"), n_train))
        write_gz(os.path.join(out, stem + ".test.gz"),
                 first_lines(os.path.join(src, stem + ".test"), n_test))


if __name__ == "__main__":
    main()
