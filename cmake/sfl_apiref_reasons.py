#!/usr/bin/env python3
"""sfl_apiref_reasons.py: derives, for each function of the API table, the
reasons the library's code can raise on a path from it.

  sfl_apiref_reasons.py SRC_DIR            prints "function reason..." lines
  sfl_apiref_reasons.py --write SRC_DIR    rewrites the @raises lines of
                                           lib/kqbase/sfl/sfl_api_ref.txt

A maintainer's tool, not part of the build: it needs clang++ (for the call
graph of every source file of lib/kqbase) and universal-ctags (for where
each function's body lies). A raise site is an ER_RAISE/ER_RAISE_MSG with a
group, an SFL_RAISE, a RaiseOs() (any errno), an SFL_NEED_ARG (EINVAL) or a
handle table's Take with its full reason. Calls made inside a function whose
every lambda runs under sfl_GiveBackQuietly (clean-up that absorbs what it
meets) are not followed through those lambdas, nor are raise sites and
calls inside a try block whose er_Escape handler absorbs every escape (it
holds no throw, or re-throws only while er_GetLive() after er_Accept). The
result is a bound: a path may need a damaged file, a full table or a
failing service.
"""
import collections
import glob
import json
import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

RAISES = [
    (re.compile(r'ER_RAISE(?:_MSG)?\(\s*ER_GROUP_(\w+)\s*,\s*([^,)]+)'), None),
    (re.compile(r'SFL_RAISE\(\s*([^)]+)\)'), 'SFL'),
    (re.compile(r'\bRaiseOs\(\)'), 'OSERR'),
    (re.compile(r'SFL_NEED_ARG\('), 'NEED'),
    (re.compile(r'\.Take\([^,]+,\s*(SFL_R_\w+)\)'), 'TAKE'),
]
LAMBDA = re.compile(r'\[[&=\w, ]*\]\s*(\([^)]*\))?\s*(mutable\s*)?\{')
ORDER = ['CALL', 'OS', 'TABLE', 'SFL', 'CONFIG', 'MONIT', 'MAINT']


def strip_nested(s, open_, close):
    pat = re.compile(re.escape(open_) + '[^' + re.escape(open_ + close) + ']*' + re.escape(close))
    while True:
        t = pat.sub('', s)
        if t == s:
            return s
        s = t


def clean(s):
    """A call-graph name without template arguments and parameter lists."""
    for a, b in (('(anonymous namespace)', 'ANONNS'), ('(anonymous class)', 'ANONCLS'),
                 ('(anonymous struct)', 'ANONSTRUCT'), ('(anonymous union)', 'ANONUNION')):
        s = s.replace(a, b)
    s = re.sub(r'\(lambda at [^)]*\)', 'LAMBDA', s)
    return strip_nested(strip_nested(s, '<', '>'), '(', ')')


def node(q, tu):
    """Graph node: Class::name or name; file-local ones and lambdas carry
    their source file."""
    if 'ANONCLS' in q or 'LAMBDA' in q:
        return tu + '#LAMBDA#' + q
    parts = q.split('::')
    if 'ANONNS' in parts:
        i = len(parts) - 1 - parts[::-1].index('ANONNS')
        return tu + '#' + '::'.join(parts[i + 1:][-2:])
    return '::'.join(parts[-2:])


def absorbed_lines(body):
    """Indexes of the lines of `body` inside a try block whose er_Escape
    handler absorbs whatever it catches."""
    text = '\n'.join(body)
    lines = set()
    for m in re.finditer(r'\btry\s*\{', text):
        depth, i = 1, m.end()
        while depth and i < len(text):
            depth += {'{': 1, '}': -1}.get(text[i], 0)
            i += 1
        try_end = i
        h = re.match(r'\s*catch\s*\(const er_Escape&[^)]*\)\s*\{', text[try_end:])
        if not h:
            continue
        depth, j = 1, try_end + h.end()
        while depth and j < len(text):
            depth += {'{': 1, '}': -1}.get(text[j], 0)
            j += 1
        handler = text[try_end:j]
        rethrow = re.sub(r'er_Accept\([^)]*\);\s*if \(er_GetLive\(\)\) throw;', '', handler)
        if 'throw' in rethrow:
            continue
        first = text.count('\n', 0, m.end())
        last = text.count('\n', 0, try_end)
        lines.update(range(first, last + 1))
    return lines


def raise_sites(src):
    """Per function key ("Class::name" or "name"): its raise sites, and the
    set of keys whose lambdas all run under sfl_GiveBackQuietly."""
    files = [f for f in glob.glob(os.path.join(src, 'lib/kqbase/**/*'), recursive=True)
             if f.endswith(('.cpp', '.h'))]
    tags = subprocess.run(['ctags', '--output-format=json', '--fields=+ne', '--kinds-C++=f',
                           '--language-force=C++', '-o', '-'] + files,
                          capture_output=True, text=True, check=True).stdout
    text = {f: open(f, encoding='utf-8').read().split('\n') for f in files}
    raises, quiet = collections.defaultdict(set), set()
    inside_only = collections.defaultdict(set)  # key -> names called only in absorbing try blocks
    for line in tags.splitlines():
        t = json.loads(line)
        if t.get('kind') != 'function' or 'end' not in t:
            continue
        scope = t.get('scope', '')
        scope = scope.split('::')[-1] if scope and not scope.startswith('__anon') else ''
        key = scope + '::' + t['name'] if scope else t['name']
        body = text[t['path']][t['line'] - 1:t['end']]
        lambdas = [l for l in body if LAMBDA.search(l)]
        if lambdas and all('GiveBackQuietly(' in l for l in lambdas):
            quiet.add(key)
        absorbed = absorbed_lines(body)
        if absorbed:
            called = lambda ls: set(re.findall(r'\b(~?\w+)\s*\(', '\n'.join(ls)))
            inner = called(l for n, l in enumerate(body) if n in absorbed)
            outer = called(l for n, l in enumerate(body) if n not in absorbed)
            inside_only[key] = inner - outer
        for n, l in enumerate(body):
            if l.strip().startswith('//') or '#define' in l or n in absorbed:
                continue
            for rx, kind in RAISES:
                for m in rx.finditer(l):
                    if kind is None:
                        r = (m.group(1), m.group(2).strip())
                    elif kind == 'SFL':
                        r = ('SFL', m.group(1).strip())
                    elif kind == 'OSERR':
                        r = ('OS', 'errno')
                    elif kind == 'NEED':
                        r = ('CALL', 'EINVAL')
                    else:
                        r = ('TABLE', m.group(1))
                    raises[key].add(r)
    return raises, quiet, inside_only


def call_graph(src, quiet, inside_only):
    incs = ['-I' + d for d in glob.glob(os.path.join(src, 'lib/kqbase/*/include'))]
    incs += ['-I' + os.path.join(src, 'lib/kqbase', d) for d in ('sfl', 'ml', 'os')]
    units = sorted(glob.glob(os.path.join(src, 'lib/kqbase/*/*.cpp')))

    def dump(unit):
        r = subprocess.run(['clang++', '-std=c++20'] + incs +
                           ['--analyze', '-Xanalyzer', '-analyzer-checker=debug.DumpCallGraph',
                            unit, '-o', '/dev/null'], capture_output=True, text=True)
        return os.path.basename(unit), r.stdout + r.stderr

    calls = collections.defaultdict(set)
    with ThreadPoolExecutor(max_workers=2) as pool:
        for tu, out in pool.map(dump, units):
            for line in out.splitlines():
                m = re.match(r'\s*Function: (.*?) calls: (.*)$', line)
                if not m or m.group(1) == '< root >':
                    continue
                caller = node(clean(m.group(1)), tu)
                if '#LAMBDA#' in caller:
                    # A lambda's calls count for the function that holds it,
                    # unless that function only uses lambdas for clean-up.
                    holder = node(caller.split('#LAMBDA#')[1].split('::ANONCLS')[0], tu)
                    if holder.split('#')[-1] not in quiet:
                        calls[holder].add(caller)
                skip = inside_only.get(caller.split('#')[-1], set())
                for c in clean(m.group(2)).split():
                    n = node(c, tu)
                    if n and n != caller and '#LAMBDA#' not in n and n.split('::')[-1] not in skip:
                        calls[caller].add(n)
    return calls


def derive(src):
    raises, quiet, inside_only = raise_sites(src)
    calls = call_graph(src, quiet, inside_only)
    consts = {}
    for f in glob.glob(os.path.join(src, 'lib/kqbase/sfl/*.cpp')):
        for m in re.finditer(r'constexpr int (k\w+) = (\d+);', open(f, encoding='utf-8').read()):
            consts[m.group(1)] = m.group(2)
    table = open(os.path.join(src, 'lib/kqbase/sfl/sfl_c_api.h'), encoding='utf-8').read()
    result = {}
    for prefix, name in re.findall(r'^SFLC_\w+\((\w+), (\w+)', table, re.M):
        fn = prefix + name
        seen, todo, toks = {fn}, [fn], set()
        while todo:
            f = todo.pop()
            key = None if '#LAMBDA#' in f else f.split('#')[-1]
            for g, r in raises.get(key, ()):
                if r == 'fullReason' or r == 'reason':
                    continue  # a parameter: its callers' values are raised directly
                if g == 'OS' and not re.fullmatch(r'E[A-Z]+', r):
                    r = 'errno'
                r = consts.get(r, r)
                if r == 'SFL_REASON_BAD_HANDLE':
                    r = 'SFL_R_BAD_HANDLE'
                toks.add(g + ':' + r)
            for c in calls.get(f, ()):
                if c not in seen:
                    seen.add(c)
                    todo.append(c)
        result[fn] = sorted(toks, key=lambda t: (ORDER.index(t.split(':')[0]), t))
    return result


def main(argv):
    write = len(argv) == 3 and argv[1] == '--write'
    if len(argv) != 2 and not write:
        sys.stderr.write(__doc__)
        return 2
    src = argv[-1]
    found = derive(src)
    if not write:
        for fn, toks in found.items():
            print(fn, ' '.join(toks) or 'none')
        return 0
    path = os.path.join(src, 'lib/kqbase/sfl/sfl_api_ref.txt')
    out, fn = [], None
    for line in open(path, encoding='utf-8').read().split('\n'):
        if line.startswith('@fn '):
            fn = line[4:].strip()
        if line.startswith('@raises ') and fn in found and line.strip() != '@raises given':
            line = '@raises ' + (' '.join(found[fn]) or 'none')
        out.append(line)
    with open(path, 'w', encoding='utf-8') as f:
        f.write('\n'.join(out))
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
