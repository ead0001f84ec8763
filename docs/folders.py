#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the list of files at the top of a folder's main header with the folder: docs/folders.py [TOP]

The list has a line `//   NAME.h  what it does` for each header below the folder, and no other; a longer text continues
in lines that are indented further. Where there is a single header there is no list.
"""
import glob
import os
import re
import sys

TOP = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MAIN = {'runtime/vel': 'Attribute.h', 'runtime/zanth': 'TimerWheel.h', 'runtime/scrivo': 'Scrivo.h',
        'runtime/dova': 'IpGenAddr.h', 'pim/model': 'Status.h', 'pim/joinprune': 'JoinPruneMessageSm.h',
        'pim/wire': 'PimMessage.h', 'pim/speaker': 'Speaker.h', 'jpagent/capture': 'Capture.h',
        'jpagent/common': 'Options.h', 'jpagent/replay': 'Replay.h', 'jpagent/simulate': 'Simulation.h',
        'jpagent/live': 'LiveRun.h'}
ROW = re.compile(r'^//   ([\w/]+\.h) {2,}\S')

errors = []
for folder, main in MAIN.items():
    path = os.path.join(TOP, folder)
    headers = {os.path.relpath(h, path) for h in glob.glob(path + '/**/*.h', recursive=True)}
    with open(os.path.join(path, main)) as file:
        opening = file.read().split('#pragma once')[0].split('\n')
    listed = [row[1] for row in map(ROW.match, opening) if row]
    if len(headers) == 1:
        continue
    where = os.path.join(folder, main)
    errors += ['%s does not list %s' % (where, name) for name in sorted(headers - set(listed))]
    errors += ['%s lists %s, which is not there' % (where, name) for name in listed if name not in headers]
    errors += ['%s lists %s twice' % (where, name) for name in sorted(set(listed)) if listed.count(name) > 1]
for error in errors:
    print(error, file=sys.stderr)
sys.exit(1 if errors else 0)
