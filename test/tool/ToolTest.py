#!/usr/bin/env python3
"""ToolTest.py PATH_OF_BRELO: the command line tool against daemons that answer, lie, hang and die."""

import contextlib
import os
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


if __name__ == '__main__':
    unittest.main()
