#!/usr/bin/env python3
"""TimelineTest.py PATH_OF_BRELO: recorded events as trace files, which all have to pass the strict checker."""

import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from check_timeline import check
from fake_daemon import FakeDaemon, document

BRELO = sys.argv.pop(1)


class Scheduler:
    """Random runs of tasks in groups in groups, as the ring has them; and what a timeline has to show of them."""

    def __init__(self, seed, now=10**12):
        self.random, self.now, self.events = random.Random(seed), now, []
        self.runs, self.requested, self.queued = [], 0, []
        self.subjects = ['N client', 'N client', 'L TaskGroup;a', 'H TaskGroup;a b', 'S ünï\u0007code "x"']

    def event(self, kind, subject, step=True):
        if step:
            self.now += self.random.choice([0, 1, 10, 999, 1000, 1001, 50000])
        self.events.append([self.now, kind, subject])

    def request(self):
        subject = self.random.choice(self.subjects)
        if 'Group' not in subject:
            self.event('fdReadable', subject)
        self.event('schedule', subject, step=False)
        self.queued.append(subject)

    def run(self, subject, depth=0):
        self.event('run start', subject)
        start = self.now
        if subject in self.queued:
            self.queued.remove(subject)
            self.requested += 1
        for _ in range(self.random.randrange(4)):
            self.random.choice([self.request, lambda: self.event('timerStart', subject)])()
            if 'Group' in subject and depth < 5:
                self.run(self.random.choice(self.subjects), depth + 1)
        self.event('run end', subject)
        self.runs.append((start, self.now))

    def step(self):
        self.request()
        if self.random.random() < 0.1:
            self.event('unschedule', self.queued[0])
            self.queued.pop(0)
        self.run(self.random.choice(self.queued or self.subjects))

    def steps(self, count):
        for _ in range(count):
            self.step()
        return self


def history(events, first, recorded=None, **process):
    return document('history', {'capacity': 100, 'recorded': recorded or first + len(events) - 1, 'first': first,
                                'lost': 0, 'events': events}, **process)


def runsOf(trace):
    """The runs on the tracks of tasks, by process."""
    return sorted((event['pid'], round(event['ts'] * 1000), round((event['ts'] + event['dur']) * 1000))
                  for event in trace['traceEvents'] if event['ph'] == 'X' and event['cat'] == 'run')


class TimelineTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.file = os.path.join(self.folder, 'trace.json')

    def path(self, name='daemon'):
        return os.path.join(self.folder, name)

    def brelo(self, *words, code=0, **run):
        ended = subprocess.run([BRELO, 'timeline', *words], capture_output=True, timeout=60, **run)
        self.assertEqual(ended.returncode, code, ended)
        self.assertRegex(ended.stderr, rb'\Abrelo: [^\n]+\n\Z' if code else rb'\A\Z')
        return ended.stderr.decode()

    def trace(self):
        """What the checker says, and the file."""
        with open(self.file, encoding='utf-8') as file:
            text = file.read()
        return check(text), json.loads(text)

    def convert(self, *documents):
        self.brelo('--from', '-', '-o', self.file, input=b''.join(documents))
        return self.trace()


class Saved(TimelineTest):
    def testEveryRunIsASliceAndEveryRequestThatRanAFlow(self):
        for seed in range(10):
            model = Scheduler(seed).steps(200)
            documents, at = [], 0
            while at < len(model.events):
                again = model.random.randrange(min(at, 10) + 1)  # some come twice
                length = model.random.randrange(1, 300)
                documents.append(history(model.events[at - again:at + length], at - again + 1))
                at += length
            found, trace = self.convert(*documents)
            self.assertEqual(runsOf(trace), sorted((1, *run) for run in model.runs), seed)
            self.assertEqual((found['flows'], found['lost'], found['processes']), (model.requested, 0, 1), seed)
            last = [event for event in trace['traceEvents'] if event['ph'] == 'C'][-1]
            self.assertEqual(last['args']['tasks'], len(model.queued))

    def testTracksAreThoseOfTheGroups(self):
        model = Scheduler(0)
        model.event('fdReadable', 'N client')
        for _ in range(2):
            model.event('run start', 'L TaskGroup;outer')
            model.event('run start', 'N TaskGroup;inner')
            model.event('run start', 'N client')
            model.event('run end', 'N client')
            model.event('run end', 'N TaskGroup;inner')
            model.event('run end', 'L TaskGroup;outer')
            model.event('run start', 'N client')
            model.event('run end', 'N client')
        found, trace = self.convert(history(model.events, 1))
        names = [event['args']['name'] for event in trace['traceEvents'] if event.get('name') == 'thread_name']
        self.assertEqual(sorted(names), ['client (N)', 'group outer (L)', 'loop', 'outer / group inner (N)',
                                         'outer / inner / client (N)'])
        self.assertEqual((found['slices'], found['instants']), (16, 1))

    def testWhatIsLostIsSaidAndEndsWhatWasOpen(self):
        events = [[1000, 'schedule', 'N a'], [2000, 'run start', 'L TaskGroup;g'], [3000, 'run start', 'N a']]
        found, trace = self.convert(history(events, 1), history([[9000, 'run end', 'N a'], [9500, 'run start', 'N a'],
                                                                [9700, 'run end', 'N a']], 10))
        self.assertEqual((found['lost'], found['flows']), (1, 1))
        self.assertEqual(runsOf(trace), [(1, 2000, 3000), (1, 3000, 3000), (1, 9500, 9700)])
        self.assertIn('lost 6 events', [event.get('name') for event in trace['traceEvents']])

    def testARunThatAnExceptionHasLeftEnds(self):
        events = [[1000, 'run start', 'L TaskGroup;g'], [2000, 'run start', 'N a'], [3000, 'run end', 'L TaskGroup;g'],
                  [4000, 'run start', 'N a'], [5000, 'schedulerIdle', 'cached'], [6000, 'run start', 'N b'],
                  [7000, 'run end', 'N b'], [8000, 'run end', 'N a']]
        _, trace = self.convert(history(events, 1))
        self.assertEqual(runsOf(trace), [(1, 1000, 3000), (1, 2000, 3000), (1, 4000, 5000), (1, 6000, 7000)])

    def testStallsAreSlicesWithTheirStacks(self):
        def stall(start, **members):
            return {'group': 'main', 'name': 'client', 'count': 2, 'lasting': False, 'last_started_monotonic_ns': start,
                    'last_s': 0.5, 'last_cpu_s': 0.4, **members,
                    'frames': [{'module': '/usr/bin/cached', 'offset': '0x12', 'function': 'Cache::sweep()'}]}
        second = 10**9
        events = history([[second, 'run start', 'N client'], [20 * second, 'run end', 'N client']], 1)
        stalls = [stall(5 * second), stall(5 * second + 10), stall(0), stall(10 * second, last_s=-1),
                  stall(11 * second, last_s=1e300, lasting=True, frames=None)]
        found, trace = self.convert(events, document('stalls', {'stalls': stalls}), document('stalls', {'stalls': stalls}))
        drawn = [event for event in trace['traceEvents'] if event.get('cat') == 'stall']
        self.assertEqual([event['ph'] for event in drawn], ['X', 'i', 'X', 'X'])
        self.assertEqual(drawn[0]['dur'], 500000)
        self.assertEqual(drawn[0]['args']['frame 1'], 'Cache::sweep() in /usr/bin/cached at 0x12')

    def testWhatIsNoHistoryIsRefused(self):
        for text in b'', b'hello', b'[1]', b'{"document":"history"', b'{]', b'{"document":"\\ud800"}', document('monitor'), history([], 1):
            self.assertIn('brelo history --json', self.brelo('--from', '-', '-o', self.file, code=1, input=text), text)
        self.assertIn('No such file', self.brelo('--from', self.path(), '-o', self.file, code=1))

    def testLiesMakeNoBadFiles(self):
        lies = [None, -1, 2**63, 2**64 - 1, 1e308, -1e308, 0.5, '', 'x' * 10000, [], {}, [[]], True, 'run start',
                'run end', 'schedule', 10**30]

        def lie(value, chance, whole=False):
            if not whole and chance.random() < 0.02:
                return chance.choice(lies)
            if isinstance(value, dict):
                return {key: lie(each, chance) for key, each in value.items()}
            if isinstance(value, list):
                return [lie(each, chance) for each in value]
            return value
        told = 0
        for seed in range(60):
            chance = random.Random(seed)
            text = b''.join(
                json.dumps({**lie(json.loads(history(Scheduler(seed).steps(20).events, 1)), chance, whole=True), **kind}).encode()
                for kind in ({}, {'document': 'history', 'version': 1}, {'document': 'stalls', 'version': 1}))
            ended = subprocess.run([BRELO, 'timeline', '--from', '-', '-o', self.file], input=text, capture_output=True,
                                   timeout=60)
            self.assertIn(ended.returncode, (0, 1), (seed, ended))
            if ended.returncode == 0:
                self.trace()
                told += 1
        self.assertGreater(told, 20)

    def testAFileIsAsLargeAsItLikes(self):
        """Without the tool growing with it: 40 documents that are never in memory at once."""
        model = Scheduler(1).steps(4000)
        one = json.dumps(model.events)
        feed = subprocess.Popen([BRELO, 'timeline', '--from', '-', '-o', '/dev/null'], stdin=subprocess.PIPE)
        peaks = []
        for i in range(40):
            first = 1 + i * len(model.events)
            feed.stdin.write(history([], first).replace(b'"events": []', b'"events": ' + one.encode()))
            with open(f'/proc/{feed.pid}/status', encoding='ascii') as status:
                peaks.append(int(status.read().split('VmHWM:')[1].split()[0]))
        feed.stdin.close()
        self.assertEqual(feed.wait(60), 0)
        self.assertLess(peaks[-1], 1.5 * peaks[10])


class Ring:
    """The answers of a daemon whose scheduler goes on at each request, and keeps so many events."""

    def __init__(self, seed, keeps=10**9, **process):
        self.model, self.keeps, self.process = Scheduler(seed, time.monotonic_ns()), keeps, process

    def __call__(self, _, words):
        self.model.steps(5)
        events = self.model.events
        asked = int(dict(word.split('=') for word in words[1:]).get('since', 1))
        first = max(asked, len(events) - self.keeps + 1, 1)
        return history(events[first - 1:first + 99], first, len(events), **self.process)


class Followed(TimelineTest):
    def testSeveralDaemonsAreProcessesOfOneFile(self):
        rings = [Ring(1), Ring(2, name='wordd', pid=124)]
        stalls = document('stalls', {'stalls': [{'name': 'client', 'last_started_monotonic_ns': time.monotonic_ns() + 10**8,
                                                 'last_s': 0.1, 'frames': []}]})
        with FakeDaemon(self.path('a'), {'history': rings[0], 'stalls': stalls}) as daemon, \
                FakeDaemon(self.path('b'), {'history': rings[1]}):
            self.brelo(self.path('a'), self.path('b'), '-o', self.file, '--seconds', '1')
        found, trace = self.trace()
        self.assertEqual((found['processes'], found['lost']), (2, 0))
        self.assertEqual(runsOf(trace), sorted([(1, *run) for run in rings[0].model.runs] +
                                               [(2, *run) for run in rings[1].model.runs]))
        self.assertIn('history capacity=100000', daemon.requests)
        self.assertEqual(sum(event.get('cat') == 'stall' for event in trace['traceEvents']), 1)

    def testARingThatOverflowsIsSaidTo(self):
        with FakeDaemon(self.path(), {'history': Ring(3, keeps=10)}):
            self.brelo(self.path(), '-o', self.file, '--seconds', '0.5')
        self.assertGreater(self.trace()[0]['lost'], 2)

    def testADaemonThatIsRestartedIsAnotherProcess(self):
        with FakeDaemon(self.path(), {'history': Ring(1)}) as daemon:
            recording = self.start(daemon, '--seconds', '3')
        with FakeDaemon(self.path(), {'history': Ring(2, pid=124)}):
            self.assertEqual((recording.wait(20), recording.stderr.read()), (0, b''))
        found, _ = self.trace()
        self.assertEqual((found['processes'], found['lost']), (2, 1))

    def start(self, daemon, *words):
        """A recording of the daemon that has begun."""
        recording = subprocess.Popen([BRELO, 'timeline', daemon.path, '-o', self.file, *words], stderr=subprocess.PIPE)
        self.addCleanup(recording.stderr.close)
        self.addCleanup(recording.wait)
        self.addCleanup(recording.kill)
        while sum('history' in request for request in daemon.requests) < 2:
            time.sleep(0.01)
        return recording

    def testADaemonThatDiesLeavesAWholeFile(self):
        with FakeDaemon(self.path(), {'history': Ring(1)}) as daemon:
            recording = self.start(daemon, '--seconds', '1')
        self.assertEqual(recording.wait(20), 1)
        self.assertIn(b'what was recorded before is in the file', recording.stderr.read())
        self.assertEqual(self.trace()[0]['lost'], 1)

    def testASignalEndsTheRecordingAndNotTheFile(self):
        for end in signal.SIGINT, signal.SIGTERM:
            with FakeDaemon(self.path(), {'history': Ring(1)}) as daemon:
                recording = self.start(daemon, '--seconds', '0')
                recording.send_signal(end)
                self.assertEqual((recording.wait(20), recording.stderr.read()), (0, b''))
            self.assertEqual(self.trace()[0]['lost'], 0)

    def testADaemonThatHangsOrLiesIsLost(self):
        for answer in (lambda *_: time.sleep(5), lambda connection, _: connection.sendall(b'.\n' * 5000),
                       lambda *_: document('monitor'), lambda *_: b'[' * 100000,
                       lambda *_: history([], 1, 2**62), lambda *_: history([], 2**62, 5)):
            with FakeDaemon(self.path(), {'history': Ring(1)}) as daemon:
                recording = self.start(daemon, '--seconds', '1', '--timeout', '0.3')
                daemon.answers['history'] = answer
                self.assertIn(recording.wait(20), (0, 1))
            self.trace()

    def testWhatCannotBeReachedWritesNothing(self):
        self.assertIn('no such socket', self.brelo(self.path(), '-o', self.file, code=1))
        self.assertFalse(os.path.exists(self.file))
        for words in [self.path()], ['-o', self.file], [self.path(), '--from', 'x', '-o', self.file]:
            self.assertIn('brelo', self.brelo(*words, code=2))


CHROMIUM = shutil.which('chromium') or shutil.which('chromium-browser')


@unittest.skipUnless(CHROMIUM, 'there is no chromium')
class Browser(TimelineTest):
    def testABrowserFindsWhatTheCheckerFinds(self):
        model = Scheduler(5).steps(3000)
        found, _ = self.convert(history(model.events[:9000], 1), history(model.events[9100:], 9101))
        self.assertEqual(self.seen(), found)

    def seen(self):
        """What the page finds in the file."""
        shutil.copy(os.path.join(os.path.dirname(os.path.abspath(__file__)), 'timeline.html'), self.folder)
        with open(self.file, encoding='utf-8') as file, open(self.path('trace.js'), 'w', encoding='ascii') as script:
            script.write('text = ' + json.dumps(file.read()))
        page = subprocess.run([CHROMIUM, '--headless', '--no-sandbox', '--disable-gpu', '--user-data-dir=' + self.path('user'),
                               '--virtual-time-budget=60000', '--dump-dom', 'file://' + self.path('timeline.html')],
                              capture_output=True, text=True, timeout=120, env={**os.environ, 'HOME': self.folder})
        found = re.search('<body>found ({.*})', page.stdout)
        self.assertIsNotNone(found, (page.stdout[-1000:], page.stderr[-1000:]))
        return json.loads(found[1])


if __name__ == '__main__':
    unittest.main()
