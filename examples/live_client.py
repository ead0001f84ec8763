#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Joins (10.9.0.1,239.1.1.1) from each neighbor that there is or appears: live_client.py CONTROL, where
"jpagent run --control CONTROL" runs. Ends when the first join has been sent."""
import json
import socket
import sys

control = socket.socket(socket.AF_UNIX)
control.connect(sys.argv[1])
lines = control.makefile('rw')
print('json on', 'events on', 'show neighbors', sep='\n', file=lines, flush=True)
for line in lines:
    said = json.loads(line)
    for neighbor in said.get('result', []) if said['event'] == 'reply' else [said]:
        if neighbor.get('state') == 'up' and 'generation' in neighbor:
            via = f"{neighbor['address']}%{neighbor['interface']}"
            print(f'join (10.9.0.1,239.1.1.1) via {via}', file=lines, flush=True)
    if said['event'] == 'sent':
        print('sent to', said['upstream'], 'with hold time', said['hold'])
        break
