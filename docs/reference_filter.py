#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows a header to Doxygen as its reader sees it; see docs/Doxyfile. Lines keep their numbers.

    docs/reference_filter.py HEADER                         to standard output
    docs/reference_filter.py --complete TAGFILE HEADER...   fails unless all that HEADERs generate is in the reference

 - The comment at the top of a file documents the file. Text that is indented is code.
 - A line that declares an attribute (VEL_VALUE(...) and its like) is replaced by what it generates: the macros and the
   comments in them are read from runtime/vel/Attribute.h, or from the header itself. The comment before the line is added
   to each function, after what the macro says.
 - Names that every entity has and that follow from its attributes (their numbers, their callbacks) get their comment here.
 - Left out: the const overloads that throw, and what is deleted.
"""
import os
import re
import sys
import xml.etree.ElementTree

MACROS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), 'runtime/vel/Attribute.h')
DEFINE = re.compile(r'^#define (\w+)\(([^)]*)\)((?:.*\\\n)*.*\n)', re.M)
CONST_OVERLOAD = re.compile(
    r'^(?!\s*(?:public|private|protected)\s*:)[ \t]*[^;{}#/\s][^;{}#/]*\)\s*const\s*\{\s*(?:(?:::)?Vel::)?throwConstInstance\(\);\s*\}',
    re.M)
LEFT = re.compile(r'^[ \t]*((?:VEL|JOIN_PRUNE)_[A-Z_]+\(.*)', re.M)
DELETED = re.compile(r'^[ \t]*[^;{}#/:\n]*= delete;', re.M)
SET_KEY = re.compile(r'Vel::(?:Hash|Ordered)Set<([^<>]*)>::Key')

# What follows from an attribute's declaration, and the comment for it.
FAMILIES = [
    (re.compile(r'virtual void on\w+\(\) \{ handleNotification\((\w+)Id\); \}'), 'The attribute `{0}` has changed.'),
    (re.compile(r'virtual void on(\w+)velImmediate\(\) \{\}'),
     'The collection as a whole may have changed; only `{0}NotifyImmediate()` says so.'),
    (re.compile(r'virtual void on(\w+)\([\w:]+\) \{\}'),
     'An element of `{0}` was added, removed or replaced; the argument is its key.'),
    (re.compile(r'virtual void on\w+\(\) \{ handleDefault\("(\w+)"\); \}'),
     'The collection `{0}` has changed. Called after the callback with the key.'),
    (re.compile(r'class NotifieeConst : public Vel::ReactorOn<([\w:]+)>'), 'Reacts to {0}: override what you need.'),
    (re.compile(r'using Notifiee = Vel::WritableReactor<'), 'The same with a writable notifier.'),
    (re.compile(r'friend (?:constexpr )?bool operator==\(.*\) = default;'), 'Whether all parts are equal.'),
    (re.compile(r'void notifierIs\(.*\) override'), 'Watches another one; what follows is told at the class.'),
    (re.compile(r'void on\w+\(.*\) override'), 'Reacts as is told at the class.'),
    (re.compile(r'\bvelKey\(\) const'), 'The key under which collections hold this.'),
    (re.compile(r'enum Attribute : Vel::AttributeId'), 'The numbers of the attributes, in the order of their declaration.'),
]

# What the standard library asks for by itself has no page of its own.
STD_HASH = re.compile(r'(?:^///[^\n]*\n)*^template <(?:class T)?>\nstruct std::hash<.*?^\};\n', re.S | re.M)


def blank(match):
    return '\n' * match.group(0).count('\n')


def macros_of(text):
    """Name -> (parameters, body without continuation marks)."""
    macros = {}
    for match in DEFINE.finditer(text):
        body = re.sub(r'\s*\\\n', '\n', match.group(3))
        macros[match.group(1)] = ([p.strip() for p in match.group(2).split(',')], body)
    return macros


def arguments_of(text):
    """The arguments of an invocation, split at the commas outside brackets."""
    arguments, depth = [''], 0
    for c in text:
        depth += (c in '<(') - (c in '>)')
        if c == ',' and depth == 0:
            arguments.append('')
        else:
            arguments[-1] += c
    return [a.strip() for a in arguments]


def invocation(macros):
    return re.compile(r'^[ \t]*(%s)\(((?:[^()]|\([^()]*\))*)\)' % '|'.join(macros), re.M) if macros else None


def expand(macros, name, arguments):
    parameters, body = macros[name]
    values = dict(zip(parameters, arguments))
    if parameters[-1] == '...':
        values['__VA_ARGS__'] = ', '.join(arguments[len(parameters) - 1:])
    body = re.sub(r'#(?!#)(\w+)', lambda m: '"%s"' % values[m[1]] if m[1] in values else m[0],
                  re.sub(r'\s*##\s*', '\0', body))
    body = re.sub(r'\w+', lambda m: values.get(m[0], m[0]), body).replace('\0', '').replace('::Vel::', 'Vel::')
    return invocation(macros).sub(lambda m: expand(macros, m[1], arguments_of(m[2])), body)


def plain(text):
    """A sentence in which nothing is a command or a tag, outside of `code`."""
    parts = re.split(r'(`[^`]*`)', text)
    parts[::2] = [re.sub(r'([\\@<#&]|(?<!\w)::)', r'\\\1', part) for part in parts[::2]]
    return ''.join(parts)


def commented(lines):
    """The texts of a comment's lines, for Doxygen."""
    in_item, code, result = False, False, []
    for line in lines:
        indent = len(line) - len(line.lstrip())
        if not line.strip():
            in_item = False
        elif line.lstrip().startswith('- '):
            in_item, code = True, False
        else:
            code = indent >= 2 and not in_item
        result.append('    ' * 2 + line if code and line.strip() else plain(line))
    return result


def attributes_written_out(text, macros):
    """Replaces invocations; the comment before them, or before the one above, is added to each function."""
    lines, result, comment, pending = text.split('\n'), [], [], []
    pattern = invocation(macros)
    at = 0
    while at < len(lines):
        line = lines[at]
        if line.lstrip().startswith('///'):
            comment.append(line)
            at += 1
            continue
        match = pattern.match(line)
        count = 1
        while not match and re.match(r'[ \t]*(%s)\(' % '|'.join(macros), line) and at + count < len(lines):
            line += ' ' + lines[at + count].strip()
            count += 1
            match = pattern.match(line)
        if match:
            if comment:
                pending = [c.strip()[3:].strip() for c in comment]
                result += [''] * len(comment)
                comment = []
            body = SET_KEY.sub(r'\1', CONST_OVERLOAD.sub('', expand(macros, match[1], arguments_of(match[2]))))
            own = ' '.join(pending)
            body = re.sub(r'/\*\* (.*?) \*/',
                          lambda m: '/** %s *%s*/' % (re.sub(r'\s+', ' ', m[1]), '\0' + own + '\0' if own else ''),
                          body, flags=re.S).replace('*\0', '').replace('\0*/', ' */')
            result.append(re.sub(r'\s*\n\s*', ' ', body) + line[match.end():])
            result += [''] * (count - 1)
        else:
            result += comment + [lines[at]]
            comment, pending = [], []
        at += count
    return '\n'.join(result + comment)


def header(path):
    """The text of a header with its attributes written out, and the names of the functions that came of them."""
    with open(path) as file:
        text = file.read()
    if os.path.samefile(path, MACROS):
        return text, set()
    with open(MACROS) as file:
        macros = {n: m for n, m in macros_of(file.read()).items() if not n.startswith('VEL_ROW')}
    own = {n: m for n, m in macros_of(text).items() if n.startswith('JOIN_PRUNE_')}
    macros.update(own)
    text = DEFINE.sub(lambda m: blank(m) if m[1] in own else m[0], text)
    names = set()
    for match in invocation(macros).finditer(text):
        names |= set(re.findall(r'\*/\s*(?:using )?[^({;=]*?(\w+)(?=\(| =)', expand(macros, match[1], arguments_of(match[2]))))
    return attributes_written_out(text, macros), names


def complete(tagfile, headers):
    """What is generated and not in the reference, as a list of lines. Doxygen cannot miss what it was not shown."""
    root = xml.etree.ElementTree.parse(tagfile).getroot()
    members = {c.findtext('name'): {m.findtext('name') for m in c.findall('member')}
               for c in root.findall("compound[@kind='class']")}
    classes = {os.path.relpath(c.findtext('path') + c.findtext('name')): [k.text for k in c.findall('class')]
               for c in root.findall("compound[@kind='file']")}
    missing, generated = [], 0
    for path in headers:
        text, names = header(path)
        missing += ['%s: %s is not written out' % (path, left) for left in LEFT.findall(DEFINE.sub(blank, text))]
        there = set().union(*(members[c] for c in classes.get(os.path.relpath(path), []) if c in members))
        missing += ['%s: %s is not in the reference' % (path, name) for name in sorted(names - there)]
        generated += len(names)
    if generated == 0:
        missing.append('no attribute was found in any header')
    return missing


def main(path):
    text = STD_HASH.sub(blank, header(path)[0])
    text = DELETED.sub(blank, CONST_OVERLOAD.sub(blank, text))

    lines, result, enumerators = text.split('\n'), [], False
    at = 0
    while at < len(lines):
        line = lines[at]
        head = at == 0
        mark = '//' if head else '///'
        if line.lstrip().startswith(mark):
            block = []
            while at < len(lines) and lines[at].lstrip().startswith(mark):
                block.append(lines[at].lstrip()[len(mark):])
                at += 1
            block = commented([b[1:] if b.startswith(' ') else b for b in block])
            result += ['/// ' + ('@head ' if head and i == 0 else '') + b for i, b in enumerate(block)]
            continue
        above = result[-1].lstrip() if result else ''
        if not above.startswith('///'):
            for pattern, says in FAMILIES:
                match = pattern.search(line)
                if match and '/**' not in line:
                    name = match[1] if match.groups() else ''
                    if name and says.startswith(('The coll', 'An ele')):
                        name = name[0].lower() + name[1:]
                    line = '/** ' + says.format(name) + ' */ ' + line
                    break
        enumerators = enumerators or 'enum Attribute :' in line
        if enumerators:
            line = re.sub(r'\b(\w+)Id\b(?! *\{)(?=[ ,]|$)',
                          lambda m: '/** The number of `%s`. */ %s' % (m[1], m[0]) if m[1] not in ('Attribute', 'firstAttribute') else m[0],
                          line)
            enumerators = '}' not in line
        result.append(line)
        at += 1
    sys.stdout.write('\n'.join(result))


if sys.argv[1] == '--complete':
    lines = complete(sys.argv[2], sys.argv[3:])
    print('\n'.join(lines), end='\n' if lines else '', file=sys.stderr)
    sys.exit(1 if lines else 0)
main(sys.argv[1])
