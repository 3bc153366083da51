#!/usr/bin/env python3
"""ToolTest.py PATH_OF_BRELO: the command line tool against daemons that answer, lie, hang and die."""

import contextlib
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from fake_daemon import Error, FakeDaemon, document

BRELO = sys.argv.pop(1)


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = os.path.join(self.folder, 'daemon.sock')

    def serve(self, answers, **options):
        return self.enterContext(FakeDaemon(self.path, answers, **options))

    def brelo(self, *words, code=0, seconds=20, **run):
        """Runs the tool, which has to end with the code; an error is one line, and nothing else fails."""
        ended = subprocess.run([BRELO, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=seconds, **run)
        self.assertEqual(ended.returncode, code, (words, ended))
        if code:
            self.assertRegex(ended.stderr, rb'\Abrelo: [^\n]+\n\Z', words)
        else:
            self.assertEqual(ended.stderr, b'', words)
        return ended.stderr.decode() if code else ended.stdout


class Connections(ToolTest):
    def testAnAnswerIsPrintedAsItIs(self):
        report = document('x') * 20000
        daemon = self.serve({'report': lambda _, words: b'table\n\n' if words[1:] else report}, piece=1 << 16)
        self.assertEqual(self.brelo('report', self.path), report)
        self.assertEqual(self.brelo('report', '--text', self.path), b'table\n\n')
        self.assertEqual(daemon.requests, ['framed', 'report', 'framed', 'report text'])

    def testAnErrorSaysWhatToDo(self):
        self.assertIn('no such socket; see whether', self.brelo('report', self.path, code=1))
        self.serve({}).close()
        self.assertIn('nobody listens', self.brelo('report', self.path, code=1))
        self.assertIn('not a socket', self.brelo('report', BRELO, code=1))
        self.assertIn('1 to 107 bytes', self.brelo('report', 'x' * 108, code=2))
        for words in [], ['report'], ['reprot', self.path], ['report', self.path, '--timeout', 'soon']:
            self.assertIn('see brelo --help', self.brelo(*words, code=2))
        self.assertIn('no command reprot', self.brelo('reprot', self.path, code=2))

    def testAnErrorOfTheDaemonIsTold(self):
        def fail(*_):
            raise Error('no \033[31mstalls here')
        self.serve({'report': fail})
        self.assertEqual(self.brelo('report', self.path, code=1), f'brelo: {self.path}: no ?[31mstalls here\n')

    def testWhatIsNoProtocolIsRefused(self):
        for greeting, text in ((b'HTTP/1.1 400 \033[2J\n', 'not the socket of a daemon\'s statistics'),
                               (b'error: too many clients\n', 'too many clients'),
                               (b'!too many clients\n', 'too many clients'),
                               (b'x' * 10000, 'line that is too long'), (b'', 'closed')):
            with FakeDaemon(self.path, {'report': lambda connection, _: connection.shutdown(socket.SHUT_RDWR)}, greeting):
                self.assertIn(text, self.brelo('report', self.path, code=1))
        for lie, text in ((b'+12345678901234567890123\n', 'no length'), (b'+-1\n', 'no length'), (b'+\n', 'no length'),
                          (b'+99999999999\n', 'larger than 256 MiB'), (b'\n', 'none of the protocol'),
                          (b'+3\nabcd\n', 'none of the protocol'), (b'!' * 10000, 'line that is too long')):
            with FakeDaemon(self.path, {'report': lambda connection, _: connection.sendall(lie)}):
                self.assertIn(text, self.brelo('report', self.path, code=1), lie)

    def testADaemonThatDiesAmidAnAnswer(self):
        def die(connection, _):
            connection.sendall(b'+1000\nhalf')
            connection.shutdown(socket.SHUT_RDWR)
        self.serve({'report': die})
        self.assertIn('closed the connection', self.brelo('report', self.path, code=1))

    def testNobodyWaitsForever(self):
        def trickle(connection, _):
            while True:
                connection.sendall(b'+1\nx')
                time.sleep(0.05)

        def flood(connection, _):
            while True:
                connection.sendall(b'+100000\n' + bytes(100000))
        for answer in trickle, lambda *_: time.sleep(5):
            with FakeDaemon(self.path, {'report': answer}):
                started = time.monotonic()
                self.assertIn('no answer for 500 ms; see', self.brelo('report', self.path, '--timeout', '0.5', code=1))
                self.assertLess(time.monotonic() - started, 3)
        with FakeDaemon(self.path, {'report': flood}):
            self.assertIn('larger than', self.brelo('report', self.path, '--timeout', '60', code=1, seconds=60))

    def testAFullBacklogIsADaemonThatHangs(self):
        with contextlib.ExitStack() as stack:
            listener = stack.enter_context(socket.socket(socket.AF_UNIX))
            listener.bind(self.path)
            listener.listen(0)
            for _ in range(3):
                client = stack.enter_context(socket.socket(socket.AF_UNIX))
                client.setblocking(False)
                with contextlib.suppress(BlockingIOError):
                    client.connect(self.path)
            self.assertIn('does not accept', self.brelo('report', self.path, '--timeout', '0.3', code=1))

    def testOutputThatCannotBeWritten(self):
        self.serve({'report': document('x') * 20000})
        with open('/dev/full', 'wb') as full:
            ended = subprocess.run([BRELO, 'report', self.path], stdout=full, stderr=subprocess.PIPE, timeout=20)
        self.assertEqual((ended.returncode, ended.stderr),
                         (1, b'brelo: cannot write to standard output: No space left on device\n'))
        with subprocess.Popen([BRELO, 'report', self.path], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as tool:
            tool.stdout.close()
            self.assertEqual((tool.wait(20), tool.stderr.read()), (0, b''))


class Commands(ToolTest):
    def testJsonIsTheDaemonsDocument(self):
        for command in 'exceptions', 'history', 'monitor', 'pending', 'stalls':
            with FakeDaemon(self.path, {command: document(command, {'events': []})}) as daemon:
                printed = self.brelo(command, '--json', self.path)
                self.assertEqual(printed, daemon.answers[command])

    def testWhatIsAskedFor(self):
        answers = {kind: document(kind) for kind in ('monitor', 'exceptions', 'trace')}
        daemon = self.serve(answers)
        for words, request in ((('monitor', '--top', '3', '--sort', 'run_max_ns', '--group', 'a b', '--json', '--histograms'),
                                'monitor top=3 sort=run_max_ns group="a b" histograms'),
                               (('exceptions', '--on'), 'exceptions on'), (('exceptions', '--off'), 'exceptions off'),
                               (('trace', '--', self.path, '-TaskScheduler/4, Task/8'), 'trace -TaskScheduler/4, Task/8'),
                               (('trace',), 'trace')):
            self.brelo(*words, *[] if '--' in words else [self.path])
            self.assertEqual(daemon.requests[-1], request)
        asked = len(daemon.requests)
        for words in (['monitor', '--group', 'a\nclear'], ['monitor', '--group', '"'], ['trace', '--timeout', '1', '\n'],
                      ['monitor', '--histograms'], ['exceptions', '--on', '--off'], ['monitor', '--top', '-1'],
                      ['history', '--since', '-1']):
            self.brelo(words[0], self.path, *words[1:], code=2)
        self.assertEqual([request for request in daemon.requests[asked:] if request != 'framed'], [])

    def testTheTableOfTheMonitor(self):
        name = {'group': 'main', 'name': 'cliënt\033[2J', 'priority': 'normal', 'tasks': 10, 'runs': 5000, 'run_ratio': 0.0123,
                'run_mean_ns': 200000.0, 'run_p99_ns': 1500000, 'run_max_ns': 2.5e9, 'violations_200': 1, 'violations_500': 2}
        self.serve({'monitor': document('monitor', {
            'loop': {'running_ratio': 0.25, 'slip_ns': {'p50': 900}, 'longest_queued': {'name': 'x', 'queued_s': 0.003}},
            'names': [name, {**name, 'name': 'b'}, 7], 'rest': {**name, 'name': '(rest)'}})})
        lines = self.brelo('monitor', self.path).decode().splitlines()
        self.assertIn('loop: 25.0 % running, - polling', lines[1])
        self.assertRegex(lines[2], 'median 900 ns')
        self.assertIn('x in ? for 3.00 ms', lines[3])
        self.assertRegex(lines[6], r'main +cliënt\?\[2J +normal +10 .* 5.00k .* 1.2 % .* 200 us +1.50 ms +2.50 s .* 3$')
        self.assertEqual(lines[6].index('normal'), lines[9].index('normal'))

    def testAStallHasItsStackAndCommandsThatAShellTakes(self):
        module = self.path + " it's $(touch x)"
        frames = [{'module': module, 'offset': '0x12', 'function': 'Cache::sweep()'},
                  {'module': '/lib/c.so', 'offset': '0x1', 'function': 'f<' + 300 * 'x' + '>'}, {'module': module, 'offset': '0x34', 'function': 'main'},
                  {'module': 'x', 'offset': '1; touch y'}, None]
        self.serve({'stalls': document('stalls', {'limit_s': 0.1, 'caught': 5, 'stalls': [
            {'group': 'main', 'name': 'client', 'count': 2, 'longest_s': 0.35, 'last_s': 0.12, 'last_cpu_s': 0.01,
             'last_unix_s': time.time() - 10, 'frames': frames, 'lasting': True}]})})
        printed = self.brelo('stalls', self.path).decode()
        self.assertIn('client in main: 2 stalls, the longest 350 ms, the latest 120 ms (10.0 ms of CPU time: blocked), 10.', printed)
        self.assertIn('#0  Cache::sweep()', printed)
        self.assertRegex(printed, r'#1  f<x{57}~ +/lib/c.so\+0x1\n', 'a long name leaves the others in sight')
        commands = [line.strip() for line in printed.splitlines() if 'addr2line' in line]
        words = [subprocess.run(['sh', '-c', f'printf "%s\n" {line}'], capture_output=True, text=True).stdout.splitlines()
                 for line in commands]
        self.assertEqual([each[2:] for each in words], [[module, '0x12', '0x34'], ['/lib/c.so', '0x1']])

    def testHistoryFollowsWithoutGaps(self):
        now = time.monotonic_ns()
        events = [[now + i * 1500, 'run start', 'n client\t'] for i in range(30)]
        recorded = [10]

        def answer(_, words):
            since = int(dict(word.split('=') for word in words[1:]).get('since', 1))
            recorded[0] = min(recorded[0] + 3, 30)
            first = max(since, recorded[0] - 8)
            return document('history', {'recorded': recorded[0], 'first': first, 'events': events[first - 1:recorded[0]][:5]})
        self.serve({'history': answer})
        printed = self.brelo('history', self.path).decode().splitlines()
        self.assertEqual([int(line.split()[0]) for line in printed], list(range(5, 15)))
        self.assertRegex(printed[1], r'^ +6  \d\d:\d\d:\d\d\.\d{6}   \+1.50 us  run start +n client\?$')
        with subprocess.Popen([BRELO, 'history', self.path, '--follow', '--since', '3'], stdout=subprocess.PIPE) as tool:
            lines = []
            while not lines or not lines[-1].startswith(b'        30'):
                lines.append(tool.stdout.readline())
            tool.kill()
        self.assertRegex(b''.join(lines), rb'\A +\d+ ')
        numbers = [int(line.split()[0]) for line in lines if not line.startswith(b'(lost')]
        self.assertEqual(numbers, list(range(numbers[0], 31)))

    def testLinesForPeople(self):
        self.serve({'pending': document('pending', {'pending': ['callback "main" due', 1, 'a\nb']}),
                    'trace': document('trace', {'trace': 'A/1,B'}),
                    'exceptions': document('exceptions', {'enabled': False, 'exceptions': [
                        {'message': 'no\033 way', 'backtrace': ['headline', 'frame', None]}, 'x']})})
        self.assertEqual(self.brelo('pending', self.path), b'callback "main" due\n?\na?b\n')
        self.assertEqual(self.brelo('trace', self.path), b'A/1,B\n')
        self.assertEqual(self.brelo('exceptions', self.path).decode().splitlines()[1:],
                         ['', 'no? way', '  headline', '  frame', '  ?', '', '?'])

    def testADocumentOfAnotherKindOrVersionIsRefused(self):
        for kind in 'exceptions', 'history', 'monitor', 'pending', 'stalls', 'trace':
            for answer, text in ((document('hello'), 'is no document'), (b'', 'is no document'), (b'[' * 100000, 'no document'),
                                 (document(kind)[:-3], 'is no document'), (document(kind, version=2), 'version 2; take')):
                with FakeDaemon(self.path, {kind: answer}):
                    self.assertIn(text, self.brelo(kind, self.path, code=1))


class Companions(ToolTest):
    """The man page and the completion know what the program knows."""
    SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '../../tool')

    def testEveryCommandAndOptionIsInBoth(self):
        with open(os.path.join(self.SOURCE, 'brelo.1'), encoding='utf-8') as file:
            manual = file.read().replace('\\-', '-')
        commands = re.findall(r'^  ([a-z]+) ', self.brelo('--help').decode().split('Subcommands:')[1], re.M)
        self.assertGreaterEqual(len(commands), 8)
        self.assertLessEqual({*commands, '--help', '--version'}, set(self.completed('')))
        for command in commands:
            self.assertIn(f'brelo {command} ', manual)
            options = set(re.findall(r'^  (?:-.,)?(--[a-z-]+)', self.brelo(command, '--help').decode(), re.M))
            self.assertLessEqual(options, set(self.completed(command, '--')), command)
            for option in options:
                self.assertIn(option, manual)

    def testSocketsAreCompleted(self):
        self.serve({})
        os.mkdir(os.path.join(self.folder, 'folder'))
        with open(os.path.join(self.folder, 'file'), 'w', encoding='ascii'):
            pass
        self.assertEqual(self.completed('stalls', self.folder + '/'), [self.path, os.path.join(self.folder, 'folder')])
        self.assertIn(os.path.join(self.folder, 'file'), self.completed('timeline', '--from', self.folder + '/'))
        self.assertIn('run_p99_ns', self.completed('monitor', '--sort', 'run_p'))

    def completed(self, *words):
        script = ('source "$1"; shift; COMP_WORDS=(brelo "$@"); COMP_CWORD=$#; _brelo 2>/dev/null; '
                  'printf "%s\n" "${COMPREPLY[@]}"')
        completed = subprocess.run(['bash', '-c', script, '-', os.path.join(self.SOURCE, 'brelo.bash'), *words],
                                   capture_output=True, text=True, check=True)
        return sorted(completed.stdout.split())

    @unittest.skipUnless(shutil.which('groff'), 'there is no groff')
    def testTheManPageHasNoWarnings(self):
        formatted = subprocess.run(['groff', '-ww', '-man', '-Tutf8', os.path.join(self.SOURCE, 'brelo.1')], capture_output=True)
        self.assertEqual((formatted.returncode, formatted.stderr), (0, b''))


if __name__ == '__main__':
    unittest.main()
