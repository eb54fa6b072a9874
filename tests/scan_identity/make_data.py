#!/usr/bin/env python3
"""Writes a data set built to stress the rule scan: many rules with
identical occurrence lists (repeated documents and words that always come
together), exact ties between rules and between labels, a continuous
attribute with long runs of equal values, and a discrete attribute.

    make_data.py OUTDIR STEM SEED
"""
import os
import random
import sys


def main():
    out, stem, seed = sys.argv[1], sys.argv[2], int(sys.argv[3])
    rng = random.Random(seed)
    classes = ["c%d" % i for i in range(5)]
    vocab = ["w%d" % i for i in range(60)]
    # Words that always appear together share their lists exactly.
    glued = [["g%da" % i, "g%db" % i, "g%dc" % i] for i in range(8)]

    def example():
        words = rng.sample(vocab, rng.randint(2, 9))
        for group in rng.sample(glued, rng.randint(0, 2)):
            words += group
        rng.shuffle(words)
        labels = sorted(set(rng.sample(classes, rng.choice([1, 1, 1, 2]))))
        size = rng.choice([1, 1, 2, 3, 3, 3, 5, 8]) if rng.random() > 0.1 else "?"
        kind = rng.choice(["x", "y", "z"])
        return "%s, %s, %s, %s.\n" % (" ".join(words), size, kind, " ".join(labels))

    with open(os.path.join(out, stem + ".names"), "w") as f:
        f.write(", ".join(classes) + ".\n")
        f.write("text: text.\nsize: continuous.\nkind: x, y, z.\n")
    for name, n in (("data", 160), ("test", 60)):
        rows = [example() for _ in range(n)]
        # Exact duplicates: rules whose lists are identical across documents.
        rows += rng.sample(rows, n // 4)
        with open(os.path.join(out, stem + "." + name), "w") as f:
            f.writelines(rows)


if __name__ == "__main__":
    main()
