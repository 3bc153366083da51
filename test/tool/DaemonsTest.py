#!/usr/bin/env python3
"""DaemonsTest.py BRELO CACHED WORDD: the tool against the real thing, under load."""

import contextlib
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from check_timeline import check

BRELO, CACHED, WORDD = sys.argv[1:4]
del sys.argv[1:4]


class Daemon:
    """A daemon of the examples, with clients that give it work until it ends."""

    def __init__(self, program, path, work, *options):
        self.path, self.work, self.working = path, work, True
        self.process = subprocess.Popen([program, '--stats', path, *options], stdout=subprocess.PIPE)
        self.port = int(re.search(rb'127\.0\.0\.1:(\d+)', self.process.stdout.readline())[1])
        self.client = threading.Thread(target=self.keepBusy)
        self.client.start()

    def keepBusy(self):
        with contextlib.suppress(OSError):
            while self.working:
                with socket.create_connection(('127.0.0.1', self.port), timeout=60) as client:
                    self.work(client)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.working = False
        self.client.join(60)
        self.process.terminate()
        self.process.communicate(timeout=60)


def useCache(client):
    for _ in range(200):
        client.sendall(b''.join(b'set k%d 0 0 5\r\nhello\r\nget k%d\r\n' % (i, i) for i in range(20)))
        client.recv(65536)
        time.sleep(0.001)


def countWords(client):
    client.sendall(b'the quick brown fox ' * 20000)
    client.shutdown(socket.SHUT_WR)
    while client.recv(65536):
        pass


class DaemonsTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.file = self.path('trace.json')

    def path(self, name):
        return os.path.join(self.folder, name)

    def brelo(self, *words):
        return subprocess.run([BRELO, *words], stdout=subprocess.PIPE, check=True, timeout=120).stdout

    def trace(self):
        with open(self.file, encoding='utf-8') as file:
            text = file.read()
        return check(text), json.loads(text)['traceEvents']

    def testDaemonsUnderLoad(self):
        for backend in 'host', 'libevent':
            with Daemon(CACHED, self.path('cached'), useCache, '--listen', '127.0.0.1:0', '--backend', backend) as cached, \
                    Daemon(WORDD, self.path('wordd'), countWords, '--backend', backend) as wordd:
                self.brelo('timeline', cached.path, wordd.path, '-o', self.file, '--seconds', '1')
                found, events = self.trace()
                self.assertEqual((found['processes'], found['lost']), (2, 0))
                self.assertGreater(found['flows'], 100)
                names = {event['args']['name'] for event in events if event.get('name') == 'thread_name'}
                self.assertLessEqual({'loop', 'group client (N)', 'client / client (N)'}, names)
                self.askAll(cached)

    def askAll(self, cached):
        """Every answer of a real daemon is understood."""
        self.assertRegex(self.brelo('monitor', '--top', '2', cached.path), rb'loop: .* running.*(\n.*)*\nclient +client ')
        self.assertRegex(self.brelo('history', cached.path), rb'run start +N client\n')
        self.assertIn(b'caught', self.brelo('stalls', cached.path))
        self.assertIn(b'\n', self.brelo('pending', cached.path))
        self.assertIn(b'recording is on', self.brelo('exceptions', '--on', cached.path))
        self.assertIn(b'Nothing/9', self.brelo('trace', cached.path, 'Nothing/9'))
        self.assertIn(b'Nothing/9,-Nothing/9', self.brelo('trace', '--', cached.path, '-Nothing/9'))
        json.loads(self.brelo('report', cached.path))
        self.assertTrue(self.brelo('report', '--text', cached.path).endswith(b'\n\n'))

    def testASavedHistoryIsTheSame(self):
        with Daemon(CACHED, self.path('cached'), useCache, '--listen', '127.0.0.1:0') as cached:
            time.sleep(0.2)
            with open(self.path('saved'), 'wb') as saved:
                for command in 'history', 'stalls', 'history':
                    saved.write(self.brelo(command, '--json', cached.path))
        self.brelo('timeline', '--from', self.path('saved'), '-o', self.file)
        self.assertGreater(self.trace()[0]['slices'], 10)


if __name__ == '__main__':
    unittest.main()
