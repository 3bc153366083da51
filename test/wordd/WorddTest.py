#!/usr/bin/env python3
"""WorddTest.py PATH_OF_WORDD: a real daemon under clients of every kind, on each backend."""

import collections
import fcntl
import itertools
import json
import os
import random
import re
import resource
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

WORDD = sys.argv.pop(1)
MEBI = 1 << 20
with open(WORDD, 'rb') as program:
    BINARY = program.read()
# How many times slower a daemon is that a sanitizer looks after.
SLOWNESS = 16 if b'__tsan_init' in BINARY else 4 if b'__asan_init' in BINARY else 1


def expected(text):
    counts = collections.Counter(re.findall(rb'[a-z]+', text.lower()))
    first = sorted(counts.items(), key=lambda entry: (-entry[1], entry[0]))[:10]
    return b''.join(b'%d %s\n' % (count, word) for word, count in first)


def eventually(condition, seconds=5):
    end = time.monotonic() + seconds * SLOWNESS
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def namesIn(document):
    """The names of all live tasks, those of groups included."""
    if isinstance(document, list):
        return [task['name'] for task in document if 'name' in task]
    if not isinstance(document, dict):
        return []
    return [name for key, value in document.items() if 'completed' not in key.lower()
            for name in namesIn(value)]


class WorddTest:
    def launch(self, *options, **popen):
        daemon = subprocess.Popen([WORDD, '--backend', self.backend, *options],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, **popen)
        for end in daemon.stderr.close, daemon.stdout.close, daemon.wait, daemon.kill:
            self.addCleanup(end)
        return daemon

    def start(self, *options, **popen):
        self.daemon = self.launch(*options, **popen)
        line = self.daemon.stdout.readline()
        self.port = int(re.fullmatch(rb'listening on 127\.0\.0\.1:(\d+)\n', line).group(1))
        self.descriptors = self.openDescriptors()

    def stop(self, number=signal.SIGTERM):
        self.daemon.send_signal(number)
        out, errors = self.daemon.communicate(timeout=10)
        self.assertEqual((self.daemon.returncode, errors), (0, b''))
        self.assertIn(b'Last 100 scheduler events', out)

    def connect(self):
        client = socket.create_connection(('127.0.0.1', self.port), timeout=20)
        self.addCleanup(client.close)
        return client

    def answer(self, client):
        client.shutdown(socket.SHUT_WR)
        return b''.join(iter(lambda: client.recv(65536), b''))

    def ask(self, text):
        client = self.connect()
        client.sendall(text)
        return self.answer(client)

    def openDescriptors(self):
        return len(os.listdir(f'/proc/{self.daemon.pid}/fd'))

    def assertAllClientsGone(self):
        self.assertTrue(eventually(lambda: self.openDescriptors() == self.descriptors))

    def cpuSeconds(self):
        with open(f'/proc/{self.daemon.pid}/stat') as stat:
            user, system = stat.read().rsplit(')', 1)[1].split()[11:13]
        return (int(user) + int(system)) / os.sysconf('SC_CLK_TCK')

    def peakMemory(self):
        with open(f'/proc/{self.daemon.pid}/status') as status:
            return int(re.search(r'VmHWM:\s+(\d+) kB', status.read()).group(1)) * 1024

    def testAnswersManyClientsWhateverOthersDo(self):
        chance = random.Random(1)
        self.start()
        vanishing = self.connect()
        vanishing.sendall(b'never counted to the end ' * 1000)
        vanishing.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))
        vanishing.close()
        words = [b'a', b'B', b'aB', b'ab-c', b'x@[`{y', b'z9z', b'\xe1\xff', b'tie', b'Eit', b'\0',
                 b'q' * 5000, b'\n']
        texts = [b' '.join(chance.choices(words, k=chance.randrange(3000))) for _ in range(40)]
        texts += [b'', b'...', b'word', chance.randbytes(MEBI)]
        clients = [(self.connect(), text) for text in texts]
        sent = [0] * len(clients)
        while any(at < len(text) for at, text in zip(sent, texts)):
            for i, (client, text) in enumerate(clients):
                piece = text[sent[i]:sent[i] + chance.choice([1, 700, 40000, 400000])]
                client.sendall(piece)
                sent[i] += len(piece)
        for client, text in clients:
            self.assertEqual(self.answer(client), expected(text))
        self.assertAllClientsGone()
        self.stop(signal.SIGINT)

    def testBoundsTheMemoryOfAClient(self):
        self.start()
        self.assertEqual(self.ask(b'warm up'), expected(b'warm up'))
        before = self.peakMemory()
        answers = []
        # Together they send faster than words as short as these are counted.
        words = MEBI // SLOWNESS
        threads = [threading.Thread(target=lambda: answers.append(self.ask(b'x y ' * words)))
                   for _ in range(16)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(answers, [b'%d x\n%d y\n' % (words, words)] * 16)
        self.assertLess(self.peakMemory() - before, 12 * MEBI)

        different = b' '.join(b'%x' % i for i in range(10**6)).translate(
            bytes.maketrans(b'0123456789', b'ghijklmnop'))
        self.assertRegex(self.ask(different), rb'^error: .*\n$')
        self.assertRegex(self.ask(b'x' * 10 * MEBI), rb'^error: .*\n$')
        self.stop()

    def testWaitsOutAFullDescriptorTable(self):
        if b'__ubsan_handle_dynamic_type_cache_miss' in BINARY:
            self.skipTest('the sanitizer checks types by way of a pipe, so it needs descriptors')
        self.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (16, 16)))
        clients = [self.connect() for _ in range(30)]
        self.assertTrue(eventually(lambda: self.openDescriptors() == 16))
        before = self.cpuSeconds()
        time.sleep(0.4)
        self.assertLess(self.cpuSeconds() - before, 0.2)
        for i, client in enumerate(clients):
            client.sendall(b'client number' + b' i' * i)
        for i, client in enumerate(clients):
            self.assertEqual(self.answer(client), expected(b'client number' + b' i' * i))
        self.assertAllClientsGone()
        self.stop()

    def testDropsIdleClientsOnly(self):
        self.start('--idle', '0.4')
        neverReads = self.connect()
        neverReads.sendall(b'w' * 7 * MEBI)
        neverReads.shutdown(socket.SHUT_WR)
        began = time.monotonic()
        silent, slow = self.connect(), self.connect()
        for _ in range(8):
            slow.sendall(b'drip ')
            time.sleep(0.1)
        self.assertEqual(self.answer(slow), b'8 drip\n')
        self.assertEqual(silent.recv(1), b'')
        self.assertGreaterEqual(time.monotonic() - began, 0.4)
        self.assertAllClientsGone()
        # What the kernel had taken over is there, the rest is not.
        self.assertLess(len(b''.join(iter(lambda: neverReads.recv(MEBI), b''))), 7 * MEBI)
        self.stop()

    def testKeepsClientsWhoDidTheirPartWhileItWasStopped(self):
        self.start('--idle', '0.3')
        silent, *clients = [self.connect() for _ in range(100)]
        self.assertTrue(eventually(lambda: self.openDescriptors() == self.descriptors + 100))
        self.daemon.send_signal(signal.SIGSTOP)
        for client in clients:
            client.sendall(b'word')
        time.sleep(0.5)
        self.daemon.send_signal(signal.SIGCONT)
        self.assertEqual([self.answer(client) for client in clients], [b'1 word\n'] * 99)
        self.assertEqual(silent.recv(1), b'')
        self.stop()

    def testBoundsItsClientsAndTheMemoryOfAll(self):
        self.start('--clients', '3', '--memory', '2')
        different = b' '.join(b'%x' % i for i in range(20000)).translate(
            bytes.maketrans(b'0123456789', b'ghijklmnop'))  # needs some 1.5 MiB
        first, second, *others = [self.connect() for _ in range(40)]
        first.sendall(different)
        self.assertTrue(eventually(lambda: self.openDescriptors() == self.descriptors + 3))
        before = self.cpuSeconds()
        time.sleep(0.3)
        self.assertLess(self.cpuSeconds() - before, 0.15)
        self.assertEqual(self.openDescriptors(), self.descriptors + 3)
        second.sendall(different)
        self.assertRegex(self.answer(second), rb'^error: .*\n$')
        self.assertEqual(self.answer(first), expected(different))
        self.assertEqual([self.answer(client) for client in others], [b''] * 38)
        self.assertEqual(self.ask(different), expected(different))
        self.assertAllClientsGone()
        self.stop()

    def testWaitsForNobodyWhoDoesNotReadItsOutput(self):
        self.start()
        size = fcntl.fcntl(self.daemon.stdout, 1031, 4096)  # F_SETPIPE_SZ
        for _ in range(300):
            self.daemon.send_signal(signal.SIGUSR1)
            time.sleep(0.001)
        self.assertEqual(self.ask(b'still counting'), expected(b'still counting'))
        self.assertLess(self.peakMemory(), 64 * MEBI)
        self.daemon.send_signal(signal.SIGTERM)
        self.assertEqual(self.daemon.wait(timeout=5), 0)
        self.assertGreater(len(self.daemon.stdout.read()), size // 2)

        self.start()
        self.daemon.stdout.close()
        self.daemon.send_signal(signal.SIGUSR1)
        self.assertEqual(self.ask(b'still counting'), expected(b'still counting'))
        self.daemon.send_signal(signal.SIGTERM)
        self.assertEqual(self.daemon.wait(timeout=5), 0)

    def statsPath(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        return os.path.join(directory.name, 'stats')

    def statsReader(self, path):
        client = socket.socket(socket.AF_UNIX)
        self.addCleanup(client.close)
        client.settimeout(20)
        client.connect(path)
        client.sendall(b'report')
        client.shutdown(socket.SHUT_WR)
        return client

    def testTakesNobodysStatisticsPath(self):
        path = self.statsPath()
        other = [WORDD, '--backend', self.backend, '--stats', path]
        with open(path, 'w') as file:
            file.write('precious')
        taken = subprocess.run(other, capture_output=True)
        self.assertEqual((taken.returncode, taken.stdout), (1, b''))
        self.assertIn(b'stats: is there and no socket', taken.stderr)
        with open(path) as file:
            self.assertEqual(file.read(), 'precious')
        os.remove(path)

        self.start('--stats', path)
        self.daemon.kill()
        self.daemon.wait()
        self.start('--stats', path)  # in place of a dead one
        taken = subprocess.run(other, capture_output=True)
        self.assertEqual(taken.returncode, 1)
        self.assertIn(b'stats: is in use', taken.stderr)
        self.assertEqual(self.statsReader(path).recv(1), b'{')
        os.rename(path, path + '.old')
        with open(path, 'w') as file:
            file.write('precious')
        self.stop()
        self.assertTrue(os.path.isfile(path))

        os.remove(path)
        daemons = [self.launch('--stats', path) for _ in range(4)]
        self.assertEqual(sum(bool(daemon.stdout.readline()) for daemon in daemons), 1)
        self.assertEqual(self.statsReader(path).recv(1), b'{')

    def testStreamsItsStatisticsHoweverTheyAreRead(self):
        path = self.statsPath()
        self.start('--stats', path)
        reader = lambda: self.statsReader(path)
        clients = [self.connect() for _ in range(400)]
        self.assertTrue(eventually(lambda: self.openDescriptors() == self.descriptors + 400))

        slow, vanishing, other = reader(), reader(), reader()
        texts = [slow.recv(10), other.recv(10)]
        self.assertEqual(len(vanishing.recv(100)), 100)
        self.assertEqual(self.ask(b'still counting'), expected(b'still counting'))
        vanishing.close()
        pieces = [iter(lambda client=client: client.recv(997), b'') for client in (slow, other)]
        for both in itertools.zip_longest(*pieces, fillvalue=b''):
            texts = [text + piece for text, piece in zip(texts, both)]
        for text in texts:
            self.assertGreater(len(text), slow.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF))
            self.assertEqual(namesIn(json.loads(text)).count('client'), 400)

        stuck = reader()
        self.assertEqual(len(stuck.recv(1)), 1)
        for client in clients:
            client.sendall(b'word')
            self.assertEqual(self.answer(client), b'1 word\n')
        self.stop()
        self.assertEqual(os.listdir(os.path.dirname(path)), [])

    def testEndsUnderLoadWhenToldTo(self):
        self.start()

        def stream(client):
            try:
                while True:
                    client.sendall(b'on and on and on ' * 4096)
            except ConnectionError:
                pass

        threads = [threading.Thread(target=stream, args=[self.connect()]) for _ in range(4)]
        for thread in threads:
            thread.start()
        time.sleep(0.1)
        taken = subprocess.run([WORDD, '--backend', self.backend, '--port', str(self.port)],
                               capture_output=True)
        self.assertEqual(taken.returncode, 1)
        self.assertIn(b'Address already in use', taken.stderr)
        self.stop()
        for thread in threads:
            thread.join()


class OnHost(WorddTest, unittest.TestCase):
    backend = 'host'


class OnLibevent(WorddTest, unittest.TestCase):
    backend = 'libevent'


if __name__ == '__main__':
    unittest.main()
