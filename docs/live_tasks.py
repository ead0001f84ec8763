#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Performs a task of a page on jpagent run: docs/live_tasks.py JPAGENT PAGE TASK

TASK is the text of a heading "## TASK". Its blocks are performed in order, in network namespaces with a LAN:
  ```sh       commands for a shell. One that begins with "sudo jpagent run" keeps the terminal
  ```jpagent  lines that are typed in that terminal
  ```python   the whole of examples/live_client.py, which lies in the folder where the commands are performed
  ```text     what the block before has printed, or the terminal prints, perhaps with other lines between
Routers of the LAN are jpagents too. Comments of the page say what they do:
  <!-- lan: 10.0.0.2 10.0.0.3 -->           which there are; 10.0.0.2 if nothing is said
  <!-- 10.0.0.2: LINE -->                   is typed there
  <!-- here: LINE -->                       is typed in the terminal: the test has no time for usual delays
  <!-- 10.0.0.2 says once: TEXT -->         waits until it is printed there
  <!-- 10.0.0.2 says 3 times: TEXT -->      waits until it has been printed there so many times
sudo, systemctl and journalctl are stand-ins, and files below /etc, /run and /usr are in a folder of the test.
Unless JOINPRUNE_THOROUGH is set, as scripts/prove does, there are a tenth of the 10,000 routes.
Ends with 77, which ctest takes for "skipped", where there can be no network namespaces.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CLIENT = os.path.join(TOP, 'examples/live_client.py')
PATIENCE = 60  # s; a loaded machine under sanitizers is slow
STEP = re.compile(r'^<!-- (?P<place>[\w.]+)(?: says (?P<times>[\d,]+ times|once))?: (?P<text>[^\n]*) -->$|'
                  r'^```(?P<kind>\w*)\n(?P<block>.*?)^```$', re.S | re.M)
# What is another one each time.
VARYING = [(re.compile(pattern), r'\1') for pattern in (
    r'\d{4}-\d\d-\d\dT[\d:.]+Z()', r'(generation"?[ :])\d+', r'(expires"?[ :])[\d.]+', r'(next"?[ :])[\d.]+')]
# Fewer routes, and the last of them.
FEWER = {'10000': '1000', '10,000': '1,000', '5000': '500', '5,000': '500', '239.1.39.15': '239.1.3.231'}
CONFIGURATION = '[interface.eth0]\nhello = 1\nhello-hold = 105\nhello-delay = 0\n'
STAND_INS = {
    'sudo': 'exec "$@"',
    # Starts the program of the unit, and waits until it says that it is ready.
    'systemctl': r'''
unit=$ROOT/jpagent.service
call() {
  sed -n "s#^$1=##p" "$unit" |
    sed "s#/etc/#$ROOT/etc/#; s#/run/#$ROOT/run/#; s#\$MAINPID#$(cat "$ROOT/main" 2>/dev/null)#"
}
case "$*" in
  "enable --now jpagent")
    mkdir -p "$ROOT/run/$(call RuntimeDirectory)" && mkfifo "$ROOT/started"
    python3 -c 'import os, socket
said = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
said.bind(os.environ["ROOT"] + "/notify")
open(os.environ["ROOT"] + "/started", "w").close()
while b"READY=1" not in said.recv(4096).split(b"\n"): pass' & waiting=$!
    cat "$ROOT/started"
    NOTIFY_SOCKET=$ROOT/notify setsid $(call ExecStart) </dev/null >"$ROOT/journal" 2>&1 &
    echo $! >"$ROOT/main"
    wait $waiting ;;
  "reload jpagent") $(call ExecReload) ;;
  "stop jpagent")
    kill $(cat "$ROOT/main")
    while kill -0 $(cat "$ROOT/main") 2>/dev/null; do sleep 0.1; done ;;
  *) echo "systemctl stand-in: $*?" >&2; exit 1 ;;
esac''',
    'journalctl': r'''
test "$*" = "-u jpagent"
for _ in $(seq 200); do test -s "$ROOT/journal" && break; sleep 0.05; done
cat "$ROOT/journal"''',
}


def plain(line):
    for pattern, instead in VARYING:
        line = pattern.sub(instead, line)
    return line


class Failed(Exception):
    pass


def missing(text, lines):
    last = '\n'.join(line[:200] for line in lines[-30:])
    return '"%s" is not printed. What is printed last:\n%s' % (text, last)


class Terminal:
    """A program whose input is typed, and whose output is put into a file."""

    def __init__(self, words, path, **options):
        self.path, self.seen = path, 0
        with open(path, 'w') as output:
            self.process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=output,
                                            stderr=subprocess.STDOUT, **options)

    def lines(self):
        with open(self.path) as file:
            return file.read().split('\n')[:-1]

    def type(self, line):
        self.process.stdin.write(line.encode() + b'\n')
        self.process.stdin.flush()

    def awaits(self, *texts, whole=True):
        """Waits for lines in this order, behind what was awaited last."""
        until = time.monotonic() + PATIENCE
        for text in texts:
            while True:
                lines = self.lines()
                found = [at for at, line in enumerate(lines[self.seen:], self.seen)
                         if (plain(line) == plain(text) if whole else text in line)]
                if found:
                    self.seen = found[0] + 1
                    break
                if time.monotonic() > until:
                    raise Failed(missing(text, lines))
                time.sleep(0.05)

    def counts(self, times, text):
        """Waits for so many lines with this text."""
        until = time.monotonic() + PATIENCE
        while sum(text in line for line in self.lines()) < times:
            if time.monotonic() > until:
                raise Failed('%d times ' % times + missing(text, self.lines()))
            time.sleep(0.05)

    def end(self):
        self.process.terminate()
        status = self.process.wait(PATIENCE)
        if status != 0:
            raise Failed('jpagent run ends with %d' % status)


class Task:
    def __init__(self, jpagent, steps):
        self.steps, self.output = steps, []
        self.root = tempfile.mkdtemp()
        self.routers, self.holders, self.terminal = {}, [], None
        tools = os.path.join(self.root, 'tools')
        for name in ('tools', 'etc', 'work'):
            os.mkdir(os.path.join(self.root, name))
        for name, script in STAND_INS.items():
            with open(os.path.join(tools, name), 'w') as file:
                file.write('#!/usr/bin/env bash\nset -e\n%s\n' % script)
            os.chmod(os.path.join(tools, name), 0o755)
        os.symlink(jpagent, os.path.join(tools, 'jpagent'))
        shutil.copytree(os.path.join(TOP, 'packaging'), os.path.join(self.root, 'usr/share/PimJoinPrune'))
        shutil.copy(os.path.join(TOP, 'packaging/jpagent.service'), self.root)
        shutil.copy(CLIENT, os.path.join(self.root, 'work'))
        os.environ.update(PATH=tools + ':' + os.environ['PATH'], ROOT=self.root)
        self.work = os.path.join(self.root, 'work')

    def shell(self, script):
        for place in ('/etc/jpagent', '/run/jpagent', '/usr/share/PimJoinPrune'):
            script = script.replace(place, self.root + place)
        run = subprocess.run(['bash', '-e', '-c', script], cwd=self.work, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, timeout=60)
        if run.returncode != 0:
            raise Failed('%s\nends with %d:\n%s' % (script, run.returncode, run.stdout))
        return run.stdout.split('\n')[:-1]

    def begin(self):
        """A bridge is the LAN; 10.0.0.1 is here, and each router in a namespace."""
        listed = [step['text'].split() for step in self.steps if step['place'] == 'lan']
        self.shell('''
          for place in all default; do echo 1 >/proc/sys/net/ipv6/conf/$place/disable_ipv6; done
          ip link add lan type bridge mcast_snooping 0
          ip link add eth0 type veth peer name port1
          ip address add 10.0.0.1/24 dev eth0
          for link in lan port1 eth0; do ip link set $link up; done
          ip link set port1 master lan''')
        path = os.path.join(self.root, 'router.toml')
        with open(path, 'w') as file:
            file.write(CONFIGURATION)
        for address in listed[0] if listed else ['10.0.0.2']:
            holder = subprocess.Popen(['unshare', '--net', 'sh', '-c', 'echo; exec sleep 600'],
                                      stdout=subprocess.PIPE)
            self.holders.append(holder)
            holder.stdout.readline()
            there = 'nsenter --target %d --net ' % holder.pid
            self.shell('''
              %ssh -c 'echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6'
              ip link add port%s type veth peer name eth0 netns %d
              ip link set port%s up master lan
              %sip address add %s/24 dev eth0
              %sip link set eth0 up''' % (there, address, holder.pid, address, there, address, there))
            router = Terminal(there.split() + ['jpagent', 'run', '--config', path],
                              os.path.join(self.root, address))
            router.awaits('interface up', whole=False)
            self.routers[address] = router

    def perform(self):
        for step in self.steps:
            kind, block = step['kind'], step['block']
            if step['times']:
                times = 1 if step['times'] == 'once' else int(step['times'].split()[0].replace(',', ''))
                self.routers[step['place']].counts(times, step['text'])
            elif step['place'] == 'here':
                self.terminal.type(step['text'])
            elif step['place'] and step['place'] != 'lan':
                self.routers[step['place']].type(step['text'])
            elif kind == 'sh' and block.startswith('sudo jpagent run'):
                self.endTerminal()
                # The shell opens the file that the output may be for, and becomes jpagent.
                words = ['bash', '-c', 'exec ' + block.strip()]
                self.terminal = Terminal(words, os.path.join(self.root, 'terminal'), cwd=self.work)
                self.output = None
            elif kind == 'sh':
                self.output = self.shell(block)
                if 'jpagent tell control quit' in block:
                    self.terminal.process.wait(PATIENCE)
            elif kind == 'jpagent':
                self.type(block.strip().split('\n'))
            elif kind == 'text':
                self.expect(block.strip('\n').split('\n'))
            elif kind == 'python':
                with open(CLIENT) as file:
                    if file.read().replace('# SPDX-License-Identifier: Apache-2.0\n', '') != block:
                        raise Failed('the script is not as it is in %s' % CLIENT)
            elif kind:
                raise Failed('a block of the kind "%s"' % kind)

    def type(self, lines):
        self.output = None
        for line in lines:
            self.terminal.type(line)
        if 'quit' in lines:
            self.terminal.process.wait(PATIENCE)

    def expect(self, lines):
        if self.output is None:
            return self.terminal.awaits(*lines)
        rest = iter(self.output)
        for line in lines:
            if not any(plain(line) == plain(other) for other in rest):
                raise Failed(missing(line, self.output))

    def endTerminal(self):
        if self.terminal:
            self.terminal.end()
            errors = [line for line in self.terminal.lines() if line.startswith(('error', 'jpagent:'))]
            if errors:
                raise Failed('jpagent run says: ' + '\n'.join(errors))
            self.terminal = None

    def end(self):
        for terminal in list(self.routers.values()) + ([self.terminal] if self.terminal else []):
            terminal.process.kill()
        for holder in self.holders:
            holder.kill()
        main = os.path.join(self.root, 'main')
        if os.path.exists(main):
            subprocess.run('kill -KILL $(cat %s)' % main, shell=True, stderr=subprocess.DEVNULL)
        shutil.rmtree(self.root)


def main(jpagent, page, title):
    if 'JPAGENT_TASK' not in os.environ:
        enter = ['unshare', '--user', '--map-root-user', '--net']
        tried = subprocess.run(enter + ['ip', 'link', 'add', 'eth0', 'type', 'veth', 'peer', 'name', 'eth1'],
                               stderr=subprocess.PIPE, text=True)
        if tried.returncode != 0:
            print('skipped: no network namespaces here: ' + tried.stderr)
            return 77
        os.environ['JPAGENT_TASK'] = title
        os.execvp(enter[0], enter + [sys.executable] + sys.argv)
    with open(page) as file:
        parts = re.split(r'^##? (.*)\n', file.read(), flags=re.M)
    sections = dict(zip(parts[1::2], parts[2::2]))
    section = sections[title]
    if not os.environ.get('JOINPRUNE_THOROUGH'):
        few = r'(?<![\d.])(%s)(?![\d.])' % '|'.join(map(re.escape, FEWER))
        section = re.sub(few, lambda many: FEWER[many[0]], section)
    steps = list(STEP.finditer(section))
    if section.count('\n```') != 2 * sum(step['kind'] is not None for step in steps):
        raise Failed('blocks that are not understood')
    if not any(step['kind'] in ('sh', 'jpagent') for step in steps):
        raise Failed('a task without a command')
    task = Task(os.path.abspath(jpagent), steps)
    try:
        task.begin()
        task.perform()
        task.endTerminal()
    finally:
        task.end()
    return 0


try:
    sys.exit(main(*sys.argv[1:]))
except Failed as failure:
    sys.exit('FAILED: %s' % failure)
