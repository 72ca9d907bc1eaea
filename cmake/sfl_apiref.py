#!/usr/bin/env python3
"""sfl_apiref.py: writes the section 3 manual pages from the API reference.

The reference (lib/kqbase/sfl/sfl_api_ref.txt) holds, per function of the
API table (lib/kqbase/sfl/sfl_c_api.h), what it does, each parameter, its
result, the reasons it raises and an example. The table gives the
signatures, so they are never written twice. Reason names are resolved to
their numbers from the headers that define them.

  sfl_apiref.py SRC_DIR OUT_DIR VERSION   writes OUT_DIR/<family>.3, and
                                          OUT_DIR/<function>.3 as a link
                                          (.so) to its family's page
  sfl_apiref.py --check SRC_DIR           checks only; exits 1 on a fault

A fault: a table function without its entry or an entry without its table
row, a parameter undocumented or documented but not a parameter, a reason
that is not defined in the code, an entry without a result, reasons line
or example.
"""
import errno
import os
import re
import sys

GROUPS = {  # group name in the reference -> (number, what the group means)
    'CALL': (1, 'bad call arguments'),
    'OS': (2, 'an operating-system call failed'),
    'TABLE': (3, 'handle-table fault'),
    'SFL': (100, 'the library\'s own reasons'),
    'CONFIG': (101, 'item reference or configuration fault'),
    'MONIT': (116, 'the interest service'),
    'MAINT': (204, 'whole-file maintenance finding'),
}


def read(path):
    with open(path, encoding='utf-8') as f:
        return f.read()


def table_rows(src):
    """(prefix, name, result type or None, [(type, param)]) per table row."""
    text = read(os.path.join(src, 'lib/kqbase/sfl/sfl_c_api.h'))
    rows = []
    for m in re.finditer(r'^SFLC_(RET0|RET|VOID0|VOID)\((.*)\)\s*$', text, re.M):
        kind, body = m.group(1), m.group(2)
        prefix, name, rest = [s.strip() for s in body.split(',', 2)] + [''] * (3 - len(body.split(',', 2)))
        rtype, params = None, ''
        if kind == 'RET0':
            rtype = rest.strip()
        elif kind == 'RET':
            rtype, rest = rest.split(',', 1)
            rtype = rtype.strip()
            params = re.match(r'\s*\((.*?)\)\s*,\s*\(', rest).group(1)
        elif kind == 'VOID':
            params = re.match(r'\s*\((.*?)\)\s*,\s*\(', rest).group(1)
        plist = []
        for p in [p.strip() for p in params.split(',') if p.strip()]:
            pm = re.match(r'(.*?)(\w+)$', p)
            plist.append((pm.group(1).strip(), pm.group(2)))
        rows.append((prefix, name, rtype, plist))
    return rows


def defined_reasons(src):
    """Symbolic reason names defined in the code, with their numbers, and the
    literal numbers raised directly at a raise site, per group name."""
    names = {}
    for rel in ('lib/kqbase/sfl/sfl_int.h', 'lib/kqbase/sfl/sfl_tables.h',
                'lib/kqbase/im/include/im.h', 'lib/kqbase/ml/include/ml.h'):
        for m in re.finditer(r'\b((?:SFL|IM|ML)_R_\w+|SFL_REASON_\w+)\s*=\s*(\d+)', read(os.path.join(src, rel))):
            names[m.group(1)] = int(m.group(2))
    literal = set()
    consts = {}
    for root, _, files in os.walk(os.path.join(src, 'lib/kqbase')):
        for f in files:
            if not f.endswith(('.cpp', '.h')):
                continue
            text = read(os.path.join(root, f))
            for m in re.finditer(r'constexpr int (k\w+) = (\d+);', text):
                consts[m.group(1)] = int(m.group(2))
            for m in re.finditer(r'ER_RAISE(?:_MSG)?\(\s*ER_GROUP_(\w+)\s*,\s*(\w+)', text):
                g, r = m.group(1), m.group(2)
                if r.isdigit():
                    literal.add((g, int(r)))
                elif r in consts:
                    literal.add((g, consts[r]))
            for m in re.finditer(r'SFL_RAISE\(\s*(\d+)\s*\)', text):
                literal.add(('SFL', int(m.group(1))))
    return names, literal


def parse_ref(src):
    """families: [{name, title, intro, fns: [entry]}]; reasons: token -> text."""
    families, reasons, fam, fn, field = [], {}, None, None, None
    for lineno, line in enumerate(read(os.path.join(src, 'lib/kqbase/sfl/sfl_api_ref.txt')).split('\n'), 1):
        if line.startswith('#'):
            continue
        m = re.match(r'@(\w+)\s*(.*)$', line)
        if not m:
            if field is not None:
                field.append(line)
            continue
        key, val = m.group(1), m.group(2).rstrip()
        field = None
        if key == 'family':
            fam = {'name': val, 'title': '', 'intro': [], 'fns': [], 'see': ''}
            families.append(fam)
            fn = None
        elif key == 'title':
            fam['title'] = val
        elif key == 'see':
            fam['see'] = val
        elif key == 'intro':
            field = fam['intro']
        elif key == 'reason':
            tok, text = val.split(None, 1)
            reasons[tok] = text
        elif key == 'fn':
            fn = {'name': val, 'does': [], 'args': {}, 'ret': None, 'raises': None, 'ex': [], 'line': lineno}
            fam['fns'].append(fn)
            field = fn['does']
        elif key == 'arg':
            name, text = (val.split(None, 1) + [''])[:2]
            fn['args'][name] = [text]
            field = fn['args'][name]
        elif key == 'ret':
            fn['ret'] = [val]
            field = fn['ret']
        elif key == 'raises':
            fn['raises'] = val.split()
        elif key == 'ex':
            field = fn['ex']
        else:
            raise SystemExit('sfl_api_ref.txt:%d: unknown field @%s' % (lineno, key))
    return families, reasons


def resolve(tok, names, literal):
    """(group number, reason number or None for any errno, label) or a fault."""
    if ':' not in tok:
        return None, 'no group in %r' % tok
    g, r = tok.split(':', 1)
    if g not in GROUPS:
        return None, 'unknown group %r' % g
    gnum = GROUPS[g][0]
    if g == 'OS':
        if r == 'errno':
            return (gnum, None, 'the errno of the failing call'), None
        if hasattr(errno, r):
            return (gnum, getattr(errno, r), r), None
        return None, 'unknown errno name %r' % r
    if r in names:
        return (gnum, names[r], r), None
    if g == 'CALL' and hasattr(errno, r):
        return (gnum, getattr(errno, r), r), None
    if r.isdigit() and (g, int(r)) in literal:
        return (gnum, int(r), None), None
    return None, 'reason %s is not defined or raised in the code' % tok


def check(src):
    rows = table_rows(src)
    families, reasons = parse_ref(src)
    names, literal = defined_reasons(src)
    faults = []
    table = {p + n: (p, n, t, ps) for p, n, t, ps in rows}
    entries = {}
    for fam in families:
        for fn in fam['fns']:
            if fn['name'] in entries:
                faults.append('%s: two entries' % fn['name'])
            entries[fn['name']] = fn
    for name in table:
        if name not in entries:
            faults.append('%s: in the API table but has no reference entry' % name)
    for name, fn in entries.items():
        if name not in table:
            faults.append('%s: reference entry for a function not in the API table' % name)
            continue
        params = [p for _, p in table[name][3]]
        for p in params:
            if p not in fn['args']:
                faults.append('%s: parameter %s is not documented' % (name, p))
        for a in fn['args']:
            if a not in params:
                faults.append('%s: documents %s, which is not a parameter' % (name, a))
        if fn['ret'] is None:
            faults.append('%s: no @ret' % name)
        if fn['raises'] is None:
            faults.append('%s: no @raises (write "@raises none" when it raises nothing)' % name)
        if not ''.join(fn['ex']).strip():
            faults.append('%s: no example' % name)
        for tok in fn['raises'] or []:
            if tok in ('none', 'given'):
                continue
            _, fault = resolve(tok, names, literal)
            if fault:
                faults.append('%s: %s' % (name, fault))
            elif tok not in reasons:
                faults.append('%s: reason %s has no @reason text' % (name, tok))
    for tok in reasons:
        _, fault = resolve(tok, names, literal)
        if fault:
            faults.append('@reason %s: %s' % (tok, fault))
    return rows, families, reasons, names, literal, faults


def roff(text):
    text = text.replace('\\', '\\e')
    return re.sub(r'(^|\n)([.\'])', r'\1\\&\2', text)


def para(lines):
    """Blank lines separate paragraphs; lines starting with two spaces are
    shown as they are (code)."""
    out, code = [], False
    for l in lines:
        if l.startswith('  ') and l.strip():
            if not code:
                out.append('.PP\n.EX' if out else '.EX')
                code = True
            out.append(roff(l[2:]))
            continue
        if code:
            out.append('.EE')
            code = False
        if not l.strip():
            out.append('.PP')
        else:
            out.append(roff(l.strip()))
    if code:
        out.append('.EE')
    while out and out[-1] == '.PP':
        out.pop()
    return '\n'.join(out)


def write_pages(src, out, version):
    rows, families, reasons, names, literal, faults = check(src)
    if faults:
        sys.stderr.write('\n'.join(faults) + '\n')
        raise SystemExit(1)
    table = {p + n: (p, n, t, ps) for p, n, t, ps in rows}
    os.makedirs(out, exist_ok=True)
    for old in os.listdir(out):
        if old.endswith('.3'):
            os.remove(os.path.join(out, old))
    allnames = [f['name'] for f in families]
    for fam in families:
        page = ['.TH %s 3 "" "sfl %s" "sfl API reference"' % (fam['name'].upper(), version),
                '.SH NAME',
                '%s \\- %s' % (', '.join([fam['name']] + [f['name'] for f in fam['fns']]), roff(fam['title']))]
        if fam['fns']:
            page += ['.SH SYNOPSIS', '.nf', '.B #include <sfl.h>', '.B #include <sfl_c.h>', '.PP']
            for fn in fam['fns']:
                p, n, t, ps = table[fn['name']]
                plist = ', '.join(('%s %s' % (ty, pn)).replace('* ', ' *') for ty, pn in ps) or 'void'
                page.append('.BI "%s %s(" "%s" );' % ((t or 'void'), fn['name'], plist.replace('"', '')))
            page.append('.fi')
        page += ['.SH DESCRIPTION', para(fam['intro'])]
        for fn in fam['fns']:
            p, n, t, ps = table[fn['name']]
            plist = ', '.join('%s %s' % (ty, pn) for ty, pn in ps)
            status = ', '.join(x for x in [plist, ('%s *result' % t) if t else ''] if x) or 'void'
            page += ['.SS %s' % fn['name'], '.nf',
                     '%s %s(%s);' % (t or 'void', fn['name'], plist or 'void'),
                     'int sflc_%s(%s);' % (n, status), '.fi', '.PP', para(fn['does'])]
            if ps:
                page += ['.PP', 'Parameters:']
                for _, pn in ps:
                    page += ['.TP', '.I %s' % pn, para(fn['args'][pn])]
            page += ['.PP', '.B Result:', para(fn['ret'])]
            toks = [x for x in fn['raises'] if x not in ('none', 'given')]
            page += ['.PP', '.B Raises:']
            if 'given' in fn['raises']:
                page.append('the escape it is given: that group and reason.')
            elif not toks:
                page.append('nothing: it raises no escape, and its status form always returns 0.')
            for tok in toks:
                (gnum, rnum, label), _ = resolve(tok, names, literal)
                g = tok.split(':')[0]
                head = 'group %d (%s), reason %s' % (gnum, GROUPS[g][1], 'errno' if rnum is None else rnum)
                if label and rnum is not None:
                    head += ' (%s)' % label
                page += ['.TP', head, roff(reasons[tok])]
            page += ['.PP', '.B Example:', '.PP', '.EX', '\n'.join(roff(l) for l in fn['ex']).strip('\n'), '.EE']
        page += ['.SH SEE ALSO', ', '.join('.BR %s (3)' % n for n in allnames if n != fam['name']).replace(', .BR', '\n.BR')
                 .replace(' (3)', ' (3),').rstrip(',') + (('\n' + fam['see']) if fam['see'] else '')]
        text = '\n'.join(page) + '\n'
        with open(os.path.join(out, fam['name'] + '.3'), 'w', encoding='utf-8') as f:
            f.write(text)
        for fn in fam['fns']:  # so that "man sfl_OpenItem" finds its family's page
            with open(os.path.join(out, fn['name'] + '.3'), 'w', encoding='utf-8') as f:
                f.write('.so man3/%s.3\n' % fam['name'])


def main(argv):
    if len(argv) == 3 and argv[1] == '--check':
        faults = check(argv[2])[-1]
        if faults:
            sys.stderr.write('\n'.join(faults) + '\n')
            return 1
        print('reference complete: every function of the API table has its entry')
        return 0
    if len(argv) == 4:
        write_pages(argv[1], argv[2], argv[3])
        return 0
    sys.stderr.write(__doc__)
    return 2


if __name__ == '__main__':
    sys.exit(main(sys.argv))
