#!/usr/bin/env python3
"""Count the rules (candidate experts) and their occurrences that mhboost
builds for a task, independently of mhboost itself.

    count_rules.py STEM [-N sgram|ngram|fgram] [-W N] [--cache DIR]

Reads STEM.names and STEM.data (the training examples only) and prints one
line "rules occurrences": the number of distinct keys, and the sum over keys
of the number of training examples in which each occurs.  Keys are made as
mhboost makes them:

  discrete attribute    one key per value seen in the training examples
  continuous attribute  one key per attribute (if any training value is known)
  text attribute        its terms:
                          ngram W   every run of 1..W consecutive words
                          fgram W   every run of exactly W consecutive words
                          sgram W   every sequence that starts at a word and
                                    ends at a word at most W-1 positions
                                    later, any subset of the inner positions
                                    replaced by a wildcard
  ignore                no keys

A value given as '?' makes no key.  A key counts once per example however
often it occurs in it.  The keys of different attributes never collide (a
text term is prefixed by its attribute when there are several).

To stay small in memory on the large sparse-gram runs, every example's set
of keys is reduced to 64-bit hashes of the keys, spread over buckets, and
the distinct hashes are counted bucket by bucket; with a few million keys the
chance of a single collision is below one in a million.

With --cache DIR the result is kept in DIR, keyed by the stem, the options
and the size and time of the names and training files, so re-runs are free.
"""

import argparse
import array
import os
import re
import sys

# The field reader of the names and data files: comments run from '|' or '%'
# to the end of the line; a field ends at ',', ':', or a period followed by
# white space (or a comment, or the end of the input); a backslash escapes
# the next character; a period followed by any other character is kept with
# that character.
_SKIP = re.compile(rb'(?:[ \t\n\r\f\v]|[|%][^\n]*(?:\n|$))*')
_FIELD = re.compile(
    rb'((?:[^,:|%\\.]|\\[\s\S]|\.\\[\s\S]|\.[^ \t\n\r\f\v|%\\])*)'
    rb'(,|:|[|%][^\n]*(?:\n|$)|\.[ \t\n\r\f\v]|\.[|%][^\n]*(?:\n|$)|\.$|$)')
_ESCAPE = re.compile(rb'\\([\s\S])')


def fields(data):
    """(field, delimiter) pairs of a names or data file held as bytes."""
    pos, end = 0, len(data)
    while True:
        pos = _SKIP.match(data, pos).end()
        if pos >= end:
            return
        m = _FIELD.match(data, pos)
        body, delim = m.group(1), m.group(2)
        if b'\\' in body:
            body = _ESCAPE.sub(rb'\1', body)
        body = body.rstrip(b' \t\n\r\f\v')
        if delim in (b',', b':'):
            d = delim
        elif not delim:
            d = b''                        # end of input
        else:
            d = b'\n'
        yield body, d
        if m.end() == pos:                 # nothing consumed: stop safely
            return
        pos = m.end()


def read_names(path):
    """Class count and [(attribute name, kind)], kind being 'continuous',
    'text', 'scoredtext', 'ignore' or 'discrete'."""
    with open(path, 'rb') as f:
        it = fields(f.read())
    classes = 0
    for body, d in it:
        classes += 1
        if d != b',':
            break
    attributes = []
    while True:
        try:
            name, d = next(it)
        except StopIteration:
            break
        if d != b':':
            sys.exit('%s: expected a colon after attribute %r'
                     % (path, name.decode('latin-1')))
        values = []
        while True:
            try:
                value, d = next(it)
            except StopIteration:
                sys.exit('%s: unexpected end of file' % path)
            values.append(value)
            if d != b',':
                break
        if len(values) >= 2:
            kind = 'discrete'
        else:
            v = values[0]
            if v == b'continuous':
                kind = 'continuous'
            elif v in (b'set', b'text'):
                kind = 'text'
            elif v == b'scoredtext':
                kind = 'scoredtext'
            elif v[:8] == b'discrete':
                kind = 'discrete'
            elif v == b'ignore':
                kind = 'ignore'
            else:
                sys.exit('%s: attribute %r has a single value %r'
                         % (path, name.decode('latin-1'),
                            v.decode('latin-1')))
        attributes.append((name, kind))
    return classes, attributes


def examples(path, n_attributes):
    """The attribute values of every example of a data file (the label
    field is read and dropped)."""
    with open(path, 'rb') as f:
        it = fields(f.read())
    while True:
        values = []
        for _ in range(n_attributes + 1):
            try:
                values.append(next(it)[0])
            except StopIteration:
                if values:
                    sys.exit('%s: end of file in the middle of an example'
                             % path)
                return
        yield values[:n_attributes]


def patterns(mode, w):
    """Term shapes as tuples of word offsets from the term's first word,
    None standing for a wildcard."""
    if mode == 'ngram':
        return [tuple(range(n)) for n in range(1, w + 1)]
    if mode == 'fgram':
        return [tuple(range(w))]
    out = []
    for n in range(1, w + 1):                 # length, first to last word
        inner = n - 2
        for mask in range(1 << max(inner, 0)):
            shape = [0]
            for k in range(inner):
                shape.append(None if mask >> k & 1 else k + 1)
            if n > 1:
                shape.append(n - 1)
            out.append(tuple(shape))
    return out


def text_terms(words, shapes, scored):
    """The distinct terms of one text as tuples of words (None = wildcard)."""
    if scored:                                # word, score, word, score, ...
        words = words[0::2]
    n = len(words)
    terms = set()
    for shape in shapes:
        last = shape[-1]
        if len(shape) == 1:
            terms.update((w,) for w in words)
            continue
        for i in range(n - last):
            terms.add(tuple(None if k is None else words[i + k]
                            for k in shape))
    return terms


def count(stem, mode, window):
    _, attributes = read_names(stem + '.names')
    shapes = patterns(mode, window)
    n_buckets = 64
    buckets = [array.array('q') for _ in range(n_buckets)]
    occurrences = 0
    n_examples = 0
    for values in examples(stem + '.data', len(attributes)):
        n_examples += 1
        keys = set()
        for a, ((_, kind), value) in enumerate(zip(attributes, values)):
            if value == b'?' or kind == 'ignore':
                continue
            if kind == 'continuous':
                keys.add((a,))
            elif kind == 'discrete':
                keys.add((a, value))
            else:
                for term in text_terms(value.split(), shapes,
                                       kind == 'scoredtext'):
                    keys.add((a,) + term)
        occurrences += len(keys)
        for k in keys:
            h = hash(k)
            buckets[h % n_buckets].append(h)
    rules = 0
    for b in range(n_buckets):
        rules += len(set(buckets[b]))
        buckets[b] = None
    return rules, occurrences, n_examples


def cache_name(stem, mode, window):
    parts = [os.path.basename(stem), mode, 'W%d' % window]
    for suffix in ('.names', '.data'):
        st = os.stat(stem + suffix)
        parts.append('%d-%d' % (st.st_size, int(st.st_mtime)))
    return '_'.join(parts) + '.txt'


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('stem')
    ap.add_argument('-N', dest='mode', default='sgram',
                    choices=['sgram', 'ngram', 'fgram'])
    ap.add_argument('-W', dest='window', type=int, default=1)
    ap.add_argument('--cache', help='directory of cached results')
    args = ap.parse_args()
    if args.window < 1:
        ap.error('the window must be at least 1')
    for suffix in ('.names', '.data'):
        if not os.path.isfile(args.stem + suffix):
            sys.exit('count_rules.py: cannot read %s%s' % (args.stem, suffix))
    path = None
    if args.cache:
        os.makedirs(args.cache, exist_ok=True)
        path = os.path.join(args.cache,
                            cache_name(args.stem, args.mode, args.window))
        if os.path.isfile(path):
            with open(path) as f:
                sys.stdout.write(f.read())
            return
    rules, occurrences, _ = count(args.stem, args.mode, args.window)
    line = '%d %d\n' % (rules, occurrences)
    if path:
        with open(path + '.tmp', 'w') as f:
            f.write(line)
        os.replace(path + '.tmp', path)
    sys.stdout.write(line)


if __name__ == '__main__':
    main()
