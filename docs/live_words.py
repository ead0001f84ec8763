#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether the page on jpagent run has each command, event and member: docs/live_words.py JPAGENT PAGE SCHEMA

A row of a table has the name of the event, or of what is shown, in its first cell, and its members in others.
"""
import json
import re
import subprocess
import sys

SHOWN = {'shown_neighbor': 'neighbors', 'shown_downstream': 'downstream', 'shown_upstream': 'upstream',
         'shown_interface': 'interfaces', 'shown_family': 'interfaces', 'shown_counter': 'counters'}
errors = []


def words(text):
    return set(re.findall(r'`(\w+)`', text))


def rows(page, title):
    """First cell and the rest of each row of a section."""
    section = page.split('\n## %s\n' % title)[1].split('\n## ')[0].replace('\\|', ' ')
    return [line.strip('| ').split(' | ', 1) for line in section.split('\n') if line.startswith('| ')]


def checkMembers(page, title, name, definition):
    for first, rest in rows(page, title):
        if name in words(first):
            # The text has what all events may have.
            for member in set(definition['properties']) - {'time', 'event', 'left_out'}:
                if '`%s`' % member not in rest:
                    errors.append('%s: the row of %s does not have the member %s' % (title, name, member))
            return
    errors.append('%s: there is no row of %s' % (title, name))


def main(jpagent, pagePath, schemaPath):
    with open(pagePath) as file:
        page = file.read()
    with open(schemaPath) as file:
        schema = json.load(file)
    for event in (reference['$ref'].rsplit('/', 1)[1] for reference in schema['oneOf']):
        checkMembers(page, 'Events', event, schema['$defs'][event])
    for name, definition in schema['$defs'].items():
        if name in SHOWN:
            checkMembers(page, 'What show shows', SHOWN[name], definition)
        elif name.startswith('shown_') and name != 'shown_command':
            errors.append('what is %s?' % name)

    text = subprocess.run([jpagent, 'run', '--help'], stdout=subprocess.PIPE, text=True, check=True).stdout
    commands = text.split('\nCommands, one a line:\n')[1]
    title = 'Commands, on standard input and on the control socket'
    cells = ' '.join(first for first, _ in rows(page, title))
    forms = re.findall(r'^  (\w+)', commands, re.M)
    settings = re.findall(r'([a-z-]+) (?:[SN]|on\|off)\b', commands.split('settings: ')[1].split(';')[0])
    subjects = re.findall(r'\w+', re.search(r'^  show (.*?)(?: \[|$)', commands, re.M)[1])
    if len(forms) < 10 or len(settings) < 12 or len(subjects) < 5:
        errors.append('jpagent run --help is not understood')
    for word in forms + settings + subjects:
        if not re.search(r'(?<![\w-])%s(?![\w-])' % word, cells):
            errors.append('%s: no row has %s' % (title, word))
    for error in errors:
        print('FAILED: ' + error, file=sys.stderr)
    return 1 if errors else 0


sys.exit(main(*sys.argv[1:]))
