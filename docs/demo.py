#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the README with what scripts/demo-live prints: docs/demo.py [--write] JPAGENT

Times and generation IDs may differ. --write has the README show what is printed. Where there are no network
namespaces, scripts/demo-live succeeds and says so, which is looked at everywhere; the rest then ends with 77,
which ctest takes for "skipped".
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BLOCK = re.compile(r'(?<=<!-- scripts/demo-live -->\n```text\n)[^`]*(?=```\n)')
TIME = re.compile(r'\d{4}-\d\d-\d\dT[\d:.]+Z')


def plain(text):
    return re.sub(r'generation \d+', 'generation N', TIME.sub('T', text))


def left_over(jpagent):
    """The processes of this program, by their IDs."""
    found = []
    for process in filter(str.isdigit, os.listdir('/proc')):
        try:
            with open('/proc/%s/cmdline' % process) as file:
                found += [process] if file.read().split('\0')[0] == jpagent else []
        except OSError:
            pass  # it has ended
    return found


def printed_by(jpagent, **options):
    run = subprocess.run([TOP + '/scripts/demo-live', jpagent], stdout=subprocess.PIPE, text=True, check=True,
                         timeout=50, **options)
    return run.stdout.lstrip('\n')


def printed_without_namespaces(jpagent):
    with tempfile.TemporaryDirectory() as folder:
        with open(folder + '/unshare', 'w') as file:
            file.write('#!/bin/sh\necho not permitted >&2\nexit 1\n')
        os.chmod(folder + '/unshare', 0o755)
        return printed_by(jpagent, env={**os.environ, 'PATH': folder + ':' + os.environ['PATH']})


def main(arguments):
    write = arguments[:1] == ['--write']
    jpagent = arguments[write]
    without = printed_without_namespaces(jpagent)
    if without != 'left out, since there can be no network namespaces here: not permitted\n':
        sys.exit('FAILED: without network namespaces it prints:\n' + without)
    with tempfile.TemporaryDirectory() as folder:
        # A copy, so that its processes can be told from others.
        copy = shutil.copy(jpagent, folder)
        printed = printed_by(copy)
        left = left_over(copy)
    if left:
        sys.exit('FAILED: processes are left over: ' + ' '.join(left))
    if printed.startswith('left out'):
        print('skipped: ' + printed)
        return 77
    with open(TOP + '/README.md') as file:
        readme = file.read()
    shown = BLOCK.findall(readme)
    if write:
        # One hour for all, so that the README does not change by the hour in which it is written.
        printed = re.sub(r'\d{4}-\d\d-\d\dT\d\d:\d\d:', '2026-11-22T06:00:', printed)
        with open(TOP + '/README.md', 'w') as file:
            file.write(BLOCK.sub(lambda _: printed, readme))
    elif [plain(text) for text in shown] != [plain(printed)]:
        sys.exit('FAILED: the README does not show what is printed:\n' + printed)
    return 0


sys.exit(main(sys.argv[1:]))
