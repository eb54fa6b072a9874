#!/usr/bin/env python3
"""Markdown report of a benchmark run made by bench/run.sh.

    report.py OUTDIR

Reads OUTDIR/meta.txt (key=value lines about the machine and the run),
OUTDIR/mhboost.tsv (one row per mhboost configuration) and OUTDIR/peers/*.tsv
(rows written by peers.py --tsv), and prints the report on standard output.
"""

import csv
import glob
import os
import sys


def read_meta(path):
    meta = {}
    with open(path) as f:
        for line in f:
            key, _, value = line.rstrip('\n').partition('=')
            meta[key] = value
    return meta


def read_tsv(path):
    with open(path, newline='') as f:
        return list(csv.DictReader(f, delimiter='\t'))


def num(text):
    try:
        return float(text)
    except (TypeError, ValueError):
        return float('nan')


def fmt(value, decimals):
    if value != value:                       # not a number
        return '-'
    return '%.*f' % (decimals, value)


def seconds(value):
    """Times from milliseconds to minutes, with sensible precision."""
    if value != value:
        return '-'
    if value == 0:
        return '0'
    if value < 0.01:
        return '%.4f' % value
    if value < 1:
        return '%.3f' % value
    if value < 100:
        return '%.2f' % value
    return '%.0f' % value


def thousands(text):
    try:
        return '{:,}'.format(int(text))
    except ValueError:
        return text or '-'


def table(header, rows):
    out = ['| ' + ' | '.join(header) + ' |',
           '|' + '|'.join('---' if i < 3 else '---:'
                          for i in range(len(header))) + '|']
    out += ['| ' + ' | '.join(r) + ' |' for r in rows]
    return '\n'.join(out)


def load_note(meta):
    load = num(meta.get('load_start'))
    other = num(meta.get('other_cores'))
    figures = ('load average %s at the start; other processes kept %s cores '
               'busy on average during the run'
               % (fmt(load, 2), fmt(other, 2)))
    # The other processes' share during the run is what counts; the load
    # average at the start also counts work that ended just before it, so
    # it decides only when the share was not measured.
    shared = other > 0.5 if other == other else load > 1
    if shared:
        return ('**The machine was shared with other builds and tests at the '
                'time** (%s), so the times are inflated, two-thread runs most '
                'of all. Re-run on an idle machine for figures to quote.'
                % figures)
    return 'The machine was otherwise idle (%s).' % figures


def read_turns(path):
    """name -> {turn: (total_s, round_trip_ns)} from turns.tsv, if any."""
    turns = {}
    if not os.path.exists(path):
        return turns
    for r in read_tsv(path):
        turns.setdefault(r['name'], {})[r['turn']] = (r['total_s'], r['round_trip_ns'])
    return turns


def turn_note(turns, stem):
    """The -T 1 and -T 2 totals turn by turn, with the round trip between
    the two cores measured just before each -T 2 run."""
    t1, t2 = turns.get(stem + '-T1', {}), turns.get(stem + '-T2', {})
    shown = []
    for turn in sorted(t2, key=int):
        if turn not in t1 or not t2[turn][1]:
            continue
        shown.append('%s s and %s s (%s ns)' % (t1[turn][0], t2[turn][0], t2[turn][1]))
    if not shown:
        return ''
    return (' Turn by turn, `-T 1` and `-T 2` totals, with the time a cache '
            'line took between the two cores and back just before the `-T 2` '
            'run: %s.' % '; '.join(shown))


def main():
    if len(sys.argv) != 2:
        sys.exit('usage: report.py OUTDIR')
    out = sys.argv[1]
    meta = read_meta(os.path.join(out, 'meta.txt'))
    runs = read_tsv(os.path.join(out, 'mhboost.tsv'))
    turns = read_turns(os.path.join(out, 'turns.tsv'))
    # peers in the order in which the mhboost table first names their task
    order = []
    for r in runs:
        if r['task'] not in order:
            order.append(r['task'])
    peers = {}
    for path in glob.glob(os.path.join(out, 'peers', '*.tsv')):
        for r in read_tsv(path):
            peers.setdefault(r['stem'], []).append(r)
    peers = dict(sorted(peers.items(), key=lambda kv: (
        order.index(kv[0]) if kv[0] in order else len(order), kv[0])))

    p = []
    p.append('# mhboost benchmark')
    p.append('')
    p.append('- Date: %s' % meta.get('date', '?'))
    p.append('- Machine: %s, %s cores, %s memory' % (
        meta.get('cpu', '?'), meta.get('cores', '?'), meta.get('memory', '?')))
    p.append('- Load: ' + load_note(meta))
    p.append('- Program: `%s` (repository at %s)' % (
        meta.get('mhboost', '?'), meta.get('commit', '?')))
    if meta.get('quick') == '1':
        p.append('- Quick run (`--quick`): a tenth of the rounds; the errors '
                 'are far from converged.')
    p.append('')

    p.append('## mhboost')
    p.append('')
    rows = []
    for r in runs:
        failed = r['status'] != 'ok'
        rows.append([
            r['name'], r['task'], '`%s`' % r['options'] if r['options'] else '',
            r['rounds'], thousands(r['rules']), thousands(r['occurrences']),
            seconds(num(r['build_s'])),
            'failed' if failed else seconds(num(r['per_round_s'])),
            seconds(num(r['total_s'])),
            fmt(num(r['peak_kib']) / 1024, 0),
            fmt(num(r['train_err']), 4), fmt(num(r['test_err']), 4)])
    p.append(table(['run', 'task', 'options', 'rounds', 'rules¹',
                    'occurrences¹', 'build s²', 's/round³', 'total s',
                    'peak MiB⁴', 'train err', 'test err'], rows))
    p.append('')
    p.append('1. Not printed by mhboost: counted from the training file by '
             '`bench/count_rules.py`, which makes the keys as mhboost does. '
             'Rules = distinct keys: one per discrete value seen, one per '
             'continuous attribute, and the terms of the text (`-N ngram -W '
             '1`: the distinct words; sparse grams `-W W`: every sequence '
             'that starts at a word and ends at a word at most W-1 positions '
             'later, with any subset of the inner positions replaced by a '
             'wildcard). Occurrences = sum over the rules of the number of '
             'training examples that contain them. Values given as `?` make '
             'no key. The sparse-gram counts use 64-bit hashes of the keys '
             '(a collision is unlikely below one in a million).')
    repeat = meta.get('repeat', '1')
    p.append('2. Wall time of the same command with `-n 0`: reading the '
             'files and building the rules.' + (
                 ' Timed %s times, once before each training run; the '
                 'median.' % repeat if repeat != '1' else ''))
    p.append('3. (total - build) / rounds. Every round prints its line '
             '(default `-f 1`), so this includes evaluating the training and '
             'test error each round.' + (
                 ' Every training run was timed %s times, in turns over the '
                 'configurations; the table shows the run with the median '
                 'total time.' % repeat if repeat != '1' else ''))
    p.append('4. Peak resident memory of the training run '
             '(`/usr/bin/time -f %M`).')
    p.append('')
    p.append('Without `-T` mhboost scores the rules on every available core '
             '(%s here).' % meta.get('cores', '?'))
    byname = {r['name']: r for r in runs}
    for stem, what in (('debpkg-ngram1', 'words'), ('debpkg-sgram3', 'sparse grams `-W 3`')):
        t1, t2 = byname.get(stem + '-T1'), byname.get(stem + '-T2')
        if not (t1 and t2 and t1['status'] == t2['status'] == 'ok'):
            continue
        a, b = num(t1['per_round_s']), num(t2['per_round_s'])
        if a == a and b == b and b > 0:
            note = ''
            if num(meta.get('other_cores')) > 0.5:
                note = (' Other processes held about %s of the %s cores, so '
                        'the second thread had little to run on.'
                        % (fmt(num(meta.get('other_cores')), 1),
                           meta.get('cores', '?')))
            p.append('')
            spread = ''
            if t1.get('totals_s') and t2.get('totals_s') and repeat != '1':
                spread = (' Total times of the %s runs: %s s with `-T 1`, %s s '
                          'with `-T 2`.' % (repeat, t1['totals_s'].replace(',', ', '),
                                            t2['totals_s'].replace(',', ', ')))
            p.append('Threads on debpkg (%s): %s s per round with `-T 1`, '
                     '%s s with `-T 2`, a speed-up of %.2f.%s%s%s'
                     % (what, seconds(a), seconds(b), a / b, spread, note,
                        turn_note(turns, stem)))
    xgb2 = [r for r in peers.get('debpkg', []) if r['method'] == 'xgb2'] if peers else []
    if xgb2:
        x = num(xgb2[0]['per_round'])
        for name, what in (('debpkg-ngram1-T2', 'words'), ('debpkg-sgram3-T2', 'sparse grams `-W 3`')):
            r = byname.get(name)
            if r and r['status'] == 'ok' and x == x and x > 0:
                m = num(r['per_round_s'])
                p.append('')
                p.append('debpkg (%s), two threads: mhboost %s s per round against '
                         "XGBoost's %s s on unigram features, a ratio of %.2f."
                         % (what, seconds(m), seconds(x), x / m))
    failed = [r for r in runs if r['status'] != 'ok']
    for r in failed:
        p.append('')
        p.append('Run %s %s; its output is in runs/%s/ of the output '
                 'directory.' % (r['name'], r['status'], r['name']))
    p.append('')

    if peers:
        p.append('## Peers')
        p.append('')
        rows = []
        for stem, rs in peers.items():
            for r in rs:
                rows.append([
                    stem, r['method'], r['rounds'], seconds(num(r['load_s'])),
                    seconds(num(r['fit_s'])), seconds(num(r['per_round'])),
                    fmt(num(r['test_err']), 4), fmt(num(r['train_err']), 4),
                    fmt(num(r['peak_rss_mib']), 0)])
        p.append(table(['task', 'method', 'rounds', 'load s', 'fit s',
                        's/round', 'test err', 'train err', 'peak MiB'],
                       rows))
        p.append('')
        p.append('As `shared/corpora/peers.py` prints them, on unigram features (one '
                 'binary column per word, discrete value and continuous '
                 'attribute): `load` only reads the files and builds the '
                 'matrix (load s); `xgbT` is XGBoost with stumps (depth 1) on '
                 'T threads at learning rate 1, `xgb1@0.3` at 0.3; `ada` is '
                 "scikit-learn's AdaBoost over stumps; `linear` a one-vs-rest "
                 'linear SVM on tf-idf rows (no rounds). s/round = fit s / '
                 'rounds. Each learner runs in a process of its own; peak MiB '
                 'is its maximum resident memory. Test error: the top-scored '
                 'class is not among the example\'s labels.')
        p.append('')

    p.append('## Commands')
    p.append('')
    p.append('```')
    p.append(meta.get('command', 'bench/run.sh'))
    p.append('```')
    p.append('')
    p.append('which ran, one at a time, each mhboost configuration in a '
             'directory of its own holding links to the task\'s files '
             '(mhboost = `%s`, CORPORA = `%s`):'
             % (meta.get('mhboost', '?'), meta.get('corpora', '?')))
    p.append('')
    p.append('```')
    for r in runs:
        build_cmd = r['command'].rsplit(' -n ', 1)[0] + ' -n 0'
        p.append(build_cmd)
        p.append(r['command'])
    if peers:
        for stem in peers:
            p.append('%s ../shared/corpora/peers.py CORPORA %s -n %s' % (
                meta.get('peer_python', 'python3'), stem,
                meta.get('peer_rounds', '?')))
    p.append('```')
    p.append('')
    p.append('Whole run: %s s of wall time. `uptime` before: `%s`; after: `%s`.'
             % (meta.get('wall_s', '?'), meta.get('uptime_start', '?').strip(),
                meta.get('uptime_end', '?').strip()))
    print('\n'.join(p))


if __name__ == '__main__':
    main()
