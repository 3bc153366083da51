#!/usr/bin/env python3
"""CachedTest.py PATH_OF_CACHED CLASS...: a real cache under clients of every kind, on a backend."""

import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

CACHED = sys.argv.pop(1)
MEBI = 1 << 20
with open(CACHED, 'rb') as program:
    BINARY = program.read()
# How many times slower a server is that a sanitizer looks after.
SLOWNESS = 16 if b'__tsan_init' in BINARY else 4 if b'__asan_init' in BINARY else 1


def eventually(condition, seconds=10):
    end = time.monotonic() + seconds * SLOWNESS
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


class Model:
    """What the commands of one client answer, by the protocol."""

    def __init__(self):
        self.items = {}  # key: value, flags, version
        self.version = 0

    def put(self, key, value, flags):
        self.version += 1
        self.items[key] = value, flags, self.version
        return b'STORED\r\n'

    def store(self, how, key, value, flags, version):
        old = self.items.get(key)
        if how == b'cas' and old and old[2] != version:
            return b'EXISTS\r\n'
        if how != b'set' and (how == b'add') == bool(old):
            return b'NOT_FOUND\r\n' if how == b'cas' else b'NOT_STORED\r\n'
        if how in (b'append', b'prepend'):
            return self.put(key, old[0] + value if how == b'append' else value + old[0], old[1])
        return self.put(key, value, flags)

    def count(self, how, key, by):
        if key not in self.items:
            return b'NOT_FOUND\r\n'
        value, flags, _ = self.items[key]
        if not re.fullmatch(rb'\d{1,19}', value):
            return b'CLIENT_ERROR cannot increment or decrement non-numeric value\r\n'
        number = (int(value) + by) % 2**64 if how == b'incr' else max(int(value) - by, 0)
        self.put(key, b'%d' % number, flags)
        return b'%d\r\n' % number

    def get(self, how, keys):
        parts = []
        for key in keys:
            if key in self.items:
                value, flags, version = self.items[key]
                unique = b' %d' % version if how in (b'gets', b'gats') else b''
                parts.append(b'VALUE %s %d %d%s\r\n%s\r\n' % (key, flags, len(value), unique, value))
        return b''.join(parts) + b'END\r\n'

    def command(self, chance, sizes):
        """A random one, and its answer."""
        key = b'key%d' % chance.randrange(20)
        how = chance.choice([b'set', b'add', b'replace', b'append', b'prepend', b'cas', b'incr',
                             b'decr', b'get', b'gets', b'gat', b'gats', b'delete', b'touch', b'bad'])
        quiet = chance.random() < 0.2
        if how in (b'get', b'gets', b'gat', b'gats'):
            keys = [b'key%d' % chance.randrange(25) for _ in range(chance.randrange(1, 9))]
            words = [b'0', *keys] if how[1:2] == b'a' else keys
            return b' '.join([how, *words]) + b'\r\n', self.get(how, keys)
        rest = b''
        if how in (b'set', b'add', b'replace', b'append', b'prepend', b'cas'):
            value = chance.choice([b'%d' % chance.getrandbits(40),
                                   chance.randbytes(chance.choice(sizes))])
            flags = chance.getrandbits(32)
            version = self.items.get(key, (0, 0, 1))[2] + chance.randrange(2)
            words = [key, b'%d' % flags, b'0', b'%d' % len(value)]
            words += [b'%d' % version] if how == b'cas' else []
            rest = value + b'\r\n'
            answer = self.store(how, key, value, flags, version)
        elif how in (b'incr', b'decr'):
            by = chance.getrandbits(chance.choice([3, 50]))
            words, answer = [key, b'%d' % by], self.count(how, key, by)
        elif how == b'delete':
            words = [key]
            answer = b'DELETED\r\n' if self.items.pop(key, None) else b'NOT_FOUND\r\n'
        elif how == b'touch':
            words = [key, b'0']
            answer = b'TOUCHED\r\n' if key in self.items else b'NOT_FOUND\r\n'
        else:
            words, answer, quiet = [], b'ERROR\r\n', False
        words += [b'noreply'] if quiet else []
        return b' '.join([how, *words]) + b'\r\n' + rest, b'' if quiet else answer


class Server:
    def start(self, *options):
        self.server = subprocess.Popen(
            [CACHED, '--listen', '127.0.0.1:0', '--backend', self.backend, *options],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for end in (self.server.stderr.close, self.server.stdout.close, self.server.wait,
                    self.server.kill):
            self.addCleanup(end)
        line = self.server.stdout.readline()
        self.port = int(re.fullmatch(rb'listening on 127\.0\.0\.1:(\d+)\n', line).group(1))

    def stop(self):
        self.server.send_signal(signal.SIGTERM)
        _, errors = self.server.communicate(timeout=20 * SLOWNESS)
        self.assertEqual((self.server.returncode, errors), (0, b''))


class CapableTest(Server):
    def testSpeaksTheTextProtocol(self):
        self.start()
        subprocess.run(['memccapable', '-a', '-h', '127.0.0.1', '-p', str(self.port)], check=True,
                       stdout=subprocess.PIPE)
        self.stop()


class CachedTest(Server):
    def connect(self):
        client = socket.create_connection(('127.0.0.1', self.port), timeout=20 * SLOWNESS)
        self.addCleanup(client.close)
        return client

    def vanish(self, client):
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))
        client.close()

    def receive(self, client, size):
        text = bytearray()
        while len(text) < size:
            piece = client.recv(min(size - len(text), MEBI))
            if not piece:
                break
            text += piece
        return bytes(text)

    def check(self, client, *pairs):
        """Sends all the commands at once; the answers are these and nothing more."""
        client.sendall(b''.join(command for command, _ in pairs) + b'version\r\n')
        for command, answer in pairs:
            self.assertEqual(self.receive(client, len(answer)), answer, command[:100])
        self.assertRegex(self.receive(client, 15), rb'VERSION [\d.]{5}\r\n')

    def figures(self, client=None):
        client = client or self.connect()
        client.sendall(b'stats\r\n')
        text = b''
        while not text.endswith(b'END\r\n'):
            text += client.recv(65536)
        return dict(re.findall(r'STAT (\w+) ([\d.]+)\r\n', text.decode()))

    def peakMemory(self):
        with open(f'/proc/{self.server.pid}/status') as status:
            return int(re.search(r'VmHWM:\s+(\d+) kB', status.read()).group(1)) * 1024

    def assertPeakBelow(self, bytes_):
        if SLOWNESS == 1:  # a sanitizer keeps what is freed
            self.assertLess(self.peakMemory(), bytes_)

    def testAnswersAsAModelDoesInWhateverPieces(self):
        chance = random.Random(1)
        self.start()
        client, model = self.connect(), Model()
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for pieces, sizes in ([1], [0, 9]), ([1, 2, 50], [0, 9, 300]), ([1000, 10**6], [9, 70000]):
            commands = [model.command(chance, sizes) for _ in range(800)]
            text = b''.join(command for command, _ in commands)

            def send():
                at = 0
                while at < len(text):
                    piece = chance.choice(pieces)
                    client.sendall(text[at:at + piece])
                    at += piece

            sender = threading.Thread(target=send)
            sender.start()
            for command, answer in commands:
                self.assertEqual(self.receive(client, len(answer)), answer, command[:100])
            sender.join()
        self.check(client)
        self.stop()

    def testRefusesWhatIsTooLargeAndWhatIsWrong(self):
        self.start()
        key, value = b'k' * 250, b'v' * MEBI
        set_ = lambda size, value, words=b'': (b'set %s 7 0 %d%s\r\n%s\r\n'
                                               % (key, size, words, value))
        tooLarge = b'SERVER_ERROR object too large for cache\r\n'
        badLine = b'CLIENT_ERROR bad command line format\r\n'
        badChunk = b'CLIENT_ERROR bad data chunk\r\n'
        badTime = b'CLIENT_ERROR invalid exptime argument\r\n'
        get, end = b'get %s\r\n' % key, b'END\r\n'
        full = b'VALUE %s 7 %d\r\n%s\r\n' % (key, MEBI, value) + end
        client = self.connect()
        self.check(client, (set_(MEBI, value), b'STORED\r\n'), (get, full))
        self.check(client, (b'append %s 0 0 1\r\n.\r\n' % key, tooLarge), (get, full))
        self.check(client, (set_(3, b'toolong'), badChunk), (get, full))
        # What is refused takes its data with it, and the value before it is not served any more.
        self.check(client, (set_(MEBI + 1, value + b'v'), tooLarge), (get, end))
        self.check(client, (set_(2 * MEBI, value * 2, b' noreply'), b''), (get, end))
        long = key + b'k'
        self.check(client, (b'set %s 0 0 3\r\nget\r\n' % long, badLine),
                   (b'get a %s b\r\n' % long, badLine), (b'delete %s\r\n' % long, badLine),
                   (b'set a 4294967296 0 3\r\nget\r\n', badLine), (b'set a 0 0 -1\r\n', badLine),
                   (b'set a 0 0 99999999999\r\n', badLine), (b'touch a x\r\n', badTime),
                   (b'gat x a\r\n', badTime), (b'get\r\n', b'ERROR\r\n'), (b'set a\r\n', b'ERROR\r\n'),
                   (b'a b c d e f g h i j k\r\n', b'ERROR\r\n'), (b'\r\n', b'ERROR\r\n'),
                   (b'incr a -1\r\n', b'CLIENT_ERROR invalid numeric delta argument\r\n'))
        endless = self.connect()
        endless.sendall(b'g' * 65536)
        self.assertEqual(self.receive(endless, 100), b'CLIENT_ERROR line too long\r\n')
        quits = self.connect()
        quits.sendall(b'version\r\nquit\r\nset a 0 0 1\r\na\r\n')
        self.assertRegex(self.receive(quits, 100), rb'^VERSION [\d.]+\r\n$')
        self.check(client, (b'get a\r\n', end))
        self.stop()

    def testKeepsWhatWasUsedWithinItsMemory(self):
        self.start('--memory', '4')
        client = self.connect()
        before, value = self.peakMemory(), b'v' * 10000
        one = b'VALUE favourite 0 1\r\n1\r\nEND\r\n'
        self.check(client, (b'set favourite 0 0 1\r\n1\r\n', b'STORED\r\n'))
        for i in range(1000):
            self.check(client, (b'set %d 0 0 10000\r\n%s\r\n' % (i, value), b'STORED\r\n'),
                       (b'get favourite\r\n', one))
        figures = self.figures(client)
        self.assertLessEqual(int(figures['bytes']), 4 * MEBI)
        self.assertGreater(int(figures['bytes']), 4 * MEBI - 20000)
        self.assertEqual(int(figures['evictions']), 1001 - int(figures['curr_items']))
        client.sendall(b'get %s\r\n' % b' '.join(b'%d' % i for i in range(1000)))
        answer = self.receive(client, (int(figures['curr_items']) - 1) * 10000)
        self.assertTrue(answer.startswith(b'VALUE %d 0 ' % (1001 - int(figures['curr_items']))))
        self.vanish(client)
        client = self.connect()
        for size in random.Random(2).choices(range(1, MEBI), k=300):  # does the memory break up?
            client.sendall(b'set %d 0 0 %d\r\n%s\r\n' % (size, size, b'x' * size))
            self.assertEqual(client.recv(100), b'STORED\r\n')
        self.assertPeakBelow(before + 16 * MEBI)
        self.stop()
        self.start('--memory', '1')
        client = self.connect()
        self.check(client, (b'set a 0 0 1\r\na\r\n', b'STORED\r\n'),
                   (b'set a 0 0 %d\r\n%s\r\n' % (MEBI, b'a' * MEBI),
                    b'SERVER_ERROR out of memory storing object\r\n'), (b'get a\r\n', b'END\r\n'))
        self.stop()

    def testForgetsInTimeAndWhenFlushed(self):
        self.start('--memory', '1')
        client = self.connect()
        stored, end = b'STORED\r\n', b'END\r\n'
        self.check(client, (b'set gone 0 -1 1\r\na\r\n', stored), (b'get gone\r\n', end),
                   (b'set past 0 1000000000 1\r\na\r\n', stored), (b'get past\r\n', end),
                   (b'set kept 0 0 1\r\na\r\n', stored), (b'touch kept -1\r\n', b'TOUCHED\r\n'),
                   (b'touch kept 0\r\n', b'NOT_FOUND\r\n'),
                   (b'set kept 0 0 1\r\na\r\nflush_all\r\n', stored + b'OK\r\n'), (b'get kept\r\n', end),
                   (b'add kept 0 0 1\r\nb\r\n', stored), (b'gat 1 kept\r\n', b'VALUE kept 0 1\r\nb\r\n' + end),
                   (b'set soon 0 1 1\r\nc\r\n', stored), (b'set late 0 100 1\r\nd\r\n', stored),
                   (b'gat 0 soon\r\n', b'VALUE soon 0 1\r\nc\r\n' + end))
        # Nobody asks for "kept": the sweep finds it.
        self.assertTrue(eventually(lambda: self.figures(client)['curr_items'] == '2'))
        self.check(client, (b'get kept soon late\r\n',
                            b'VALUE soon 0 1\r\nc\r\nVALUE late 0 1\r\nd\r\n' + end),
                   (b'flush_all 1\r\n', b'OK\r\n'), (b'get late\r\n', b'VALUE late 0 1\r\nd\r\n' + end))
        self.assertTrue(eventually(lambda: self.figures(client)['curr_items'] == '0'))
        self.check(client, (b'set soon 0 0 1\r\nc\r\n', stored), (b'get soon late\r\n', b'VALUE soon 0 1\r\nc\r\n' + end))
        self.stop()

    def testServesOthersWhateverSomeClientsDo(self):
        self.start('--connections', '120', '--memory', '8')
        client = self.connect()
        before, value = self.peakMemory(), b'v' * (MEBI - 1)
        self.check(client, (b'set big 0 0 %d\r\n%s\r\n' % (len(value), value), b'STORED\r\n'))
        hostile = [self.connect() for _ in range(100)]
        for i, other in enumerate(hostile):
            if i % 4 == 0:  # wants a hundred times 1 MiB and never reads
                other.sendall(b'get big\r\n' * 100 if i % 8 else b'get' + b' big' * 100 + b'\r\n')
            elif i % 4 == 1:  # never gets to the end
                other.sendall(b'set mine 0 0 %d\r\n' % MEBI + b'x' * 100000)
            elif i % 4 == 2:
                other.sendall(b'get ' + b'k' * 60000)
            else:
                other.sendall(b'get big\r\nset mine 0 0 100\r\nx')
                self.vanish(other)
        start = time.monotonic()
        for i in range(200):
            self.check(client, (b'set a%d 0 0 1\r\na\r\n' % i, b'STORED\r\n'))
        self.assertLess(time.monotonic() - start, 5 * SLOWNESS)
        self.assertPeakBelow(before + (25 * 2 + 25 + 20) * MEBI)
        self.assertTrue(eventually(lambda: self.figures(client)['curr_connections'] == '76'))
        reader = hostile[4]  # reads after all
        whole = (b'VALUE big 0 %d\r\n%s\r\n' % (len(value), value) + b'END\r\n') * 100
        self.assertEqual(self.receive(reader, len(whole)), whole)
        for other in hostile:
            other.close()
        self.assertTrue(eventually(lambda: self.figures(client)['curr_connections'] == '1'))
        client.sendall(b'get big\r\n' * 100)  # and never reads: that does not hold up the end
        self.stop()

    def testBoundsItsClients(self):
        self.start('--connections', '2', '--idle', '1')
        first, second, third = (self.connect() for _ in range(3))
        self.check(first)
        self.check(second)
        third.sendall(b'version\r\n')
        third.settimeout(0.05)
        self.assertRaises(TimeoutError, third.recv, 1)
        third.settimeout(20 * SLOWNESS)
        self.vanish(first)
        self.assertTrue(third.recv(1))
        self.assertEqual(second.recv(1), b'')
        self.stop()


class CapableOnHost(CapableTest, unittest.TestCase):
    backend = 'host'


class CapableOnLibevent(CapableTest, unittest.TestCase):
    backend = 'libevent'


class OnHost(CachedTest, unittest.TestCase):
    backend = 'host'


class OnLibevent(CachedTest, unittest.TestCase):
    backend = 'libevent'


if 'CapableOnHost' in sys.argv and not shutil.which('memccapable'):
    print('skipped: there is no memccapable')
    sys.exit(77)
unittest.main()
