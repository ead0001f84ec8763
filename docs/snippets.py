#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the C++ in a guide with the compiled files that it comes from: docs/snippets.py [--write] GUIDE...

Each ```cpp block has `<!-- FILE MARK -->` in the line before it, and is the text in FILE (from the top of the tree)
between two lines `// [MARK]`, moved to the left margin. --write takes over what the files say. A block without a mark, a
mark without its lines, and a mark that no guide shows are errors.
"""
import glob
import os
import re
import sys
import textwrap

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BLOCK = re.compile(r'(?:<!-- (?P<file>\S+) (?P<mark>[\w-]+) -->\n)?```cpp\n(?P<code>.*?)```\n', re.S)
MARK = re.compile(r'^[ \t]*// \[([\w-]+)\]\n', re.M)


def marked(path):
    """Mark -> the text between its two lines."""
    with open(os.path.join(TOP, path)) as file:
        parts = MARK.split(file.read())
    marks, texts = parts[1::2], parts[2::2]
    if len(marks) % 2 or marks[::2] != marks[1::2]:
        sys.exit('%s: the marks do not come in pairs: %s' % (path, ' '.join(marks)))
    return {mark: textwrap.dedent(text) for mark, text in zip(marks[::2], texts[::2])}


def main(arguments):
    write = arguments[:1] == ['--write']
    errors, shown = [], set()
    for guide in arguments[write:]:
        with open(guide) as file:
            text = file.read()

        def replaced(block):
            name = '%s %s' % (block['file'], block['mark'])
            if not block['mark']:
                errors.append('a block without a mark: %s' % block['code'].split('\n')[0])
                return block[0]
            code = marked(block['file']).get(block['mark'])
            shown.add((block['file'], block['mark']))
            if code is None:
                errors.append('no such mark: %s' % name)
                return block[0]
            if code != block['code'] and not write:
                errors.append('not as it is compiled: %s' % name)
            return '<!-- %s -->\n```cpp\n%s```\n' % (name, code)

        result = BLOCK.sub(replaced, text)
        if text.count('```cpp') != len(BLOCK.findall(text)) or not BLOCK.search(text):
            errors.append('blocks that are not understood')
        if write and result != text:
            with open(guide, 'w') as file:
                file.write(result)
    for path in sorted({file for file, _ in shown} | {os.path.relpath(p, TOP) for p in glob.glob(TOP + '/docs/guide/*.cpp')}):
        errors += ['nowhere shown: %s %s' % (path, mark) for mark in marked(path) if (path, mark) not in shown]
    for error in errors:
        print('%s: %s' % (' '.join(arguments[write:]), error), file=sys.stderr)
    return 1 if errors else 0


sys.exit(main(sys.argv[1:]))
