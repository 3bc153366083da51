#!/usr/bin/env python3
"""MetricsTest.py PATH_OF_BRELO DASHBOARD: `brelo metrics` over daemons that work, are cleared, restart, hang and lie."""

import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

from fake_daemon import FakeDaemon, document
from fake_monitor import Monitor

DASHBOARD = sys.argv.pop(2)
BRELO = sys.argv.pop(1)
CLIENT, JOBS, JOB = ('main', 'client', 'normal'), ('main', 'TaskGroup;jobs', 'normal'), ('jobs', 'job"\\\n', 'low')


class MetricsTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = os.path.join(self.folder, 'cached.sock')
        self.monitor = Monitor({CLIENT: 50, JOBS: 100, JOB: 100})
        self.monitor.slow = {JOB}

    def start(self, *words):
        self.tool = subprocess.Popen([BRELO, 'metrics', '--listen', '127.0.0.1:0', *words], stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)
        self.addCleanup(self.end)
        self.url = urllib.parse.urlsplit(self.tool.stdout.readline().strip())

    def end(self, code=0):
        self.tool.send_signal(signal.SIGTERM)
        out, err = self.tool.communicate(timeout=20)
        self.assertEqual(self.tool.returncode, code, err)
        return err

    def text(self):
        connection = http.client.HTTPConnection(self.url.netloc, timeout=20)
        connection.request('GET', self.url.path)
        text = connection.getresponse().read().decode()
        connection.close()
        return text

    def scrape(self):
        """The values by what stands in front of them."""
        return dict(re.findall(r'^(brelo_.*) (\S+)$', self.text(), re.M))

    def run_(self, *words):
        ended = subprocess.run([BRELO, 'metrics', *words], capture_output=True, text=True, timeout=20)
        self.assertRegex(ended.stderr, r'\Abrelo: [^\n]+\n\Z')
        return ended.returncode, ended.stderr

    def testCountersGrowOverAClearingAndBeginAgainAtARestart(self):
        client = 'brelo_task_run_seconds_count{daemon="cached",group="main",name="client",priority="normal"}'
        with FakeDaemon(self.path, self.monitor.answers(1.0)):
            self.start(self.path)
            counts, running = [], []
            for step in range(4):
                if step == 2:
                    self.monitor.clear()
                values = self.scrape()
                counts.append(int(values[client]))
                running.append(float(values['brelo_loop_seconds_total{daemon="cached",state="running"}']))
            self.assertEqual(counts, [50, 100, 150, 200])
            self.assertAlmostEqual(running[3], 4 * running[0])
            self.assertEqual(values['brelo_clears_total{daemon="cached"}'], '1')
            self.assertEqual(values['brelo_stalls_total{daemon="cached"}'], '5')
            job = 'daemon="cached",group="jobs",name="job\\"\\\\\\n",priority="low"'
            buckets = {le: int(values[f'brelo_task_run_seconds_bucket{{{job},le="{le}"}}'])
                       for le in ('0.0001', '0.02', '0.05', '+Inf')}
            self.assertEqual(buckets, {'0.0001': 0, '0.02': 0, '0.05': 400, '+Inf': 400})
            self.assertAlmostEqual(float(values[f'brelo_task_run_seconds_sum{{{job}}}']), 400 * 0.025690112)
            self.assertEqual(values[f'brelo_task_violations_total{{{job}}}'], '400')
            self.assertFalse([each for each in values if each.startswith('brelo_task') and 'TaskGroup' in each])
            self.assertEqual(values['brelo_group_run_seconds_count{daemon="cached",group="main",name="jobs",'
                                    'priority="normal"}'], '400')
        self.assertEqual([each for each in self.scrape().items()], [('brelo_up{daemon="cached"}', '0')])
        with FakeDaemon(self.path, Monitor({CLIENT: 7}, pid=124).answers(1.0)):
            values = self.scrape()
            self.assertEqual((values[client], values['brelo_up{daemon="cached"}']), ('7', '1'))
        self.scrape()
        self.assertEqual(self.end().count('nobody listens'), 2)  # told once for each time

    def testADaemonThatHangsDoesNotHoldTheOthersUp(self):
        paths = [f'{self.folder}/{name}.sock' for name in ('hung', 'deaf', 'liar', 'flood')]
        deaf = self.enterContext(socket.socket(socket.AF_UNIX))
        deaf.bind(paths[1])
        deaf.listen(0)
        flood = [{'group': str(i), 'name': 'x'} for i in range(10000)]
        twins = [{'group': 'g', 'name': 'x', 'runs': -1, 'run_histogram_ns': [[1e300, 1e300], 7]}] * 2
        base = {'window': {}, 'loop': {'tasks': 1e308}}
        for path, answer in ((paths[0], lambda *_: time.sleep(60)),
                             (paths[2], document('monitor', {**base, 'names': twins})),
                             (paths[3], document('monitor', {**base, 'names': flood}))):
            self.enterContext(FakeDaemon(path, {'monitor': answer}))
        self.enterContext(FakeDaemon(self.path, self.monitor.answers(1.0)))
        self.start('--timeout', '0.5', *paths, 'the cache=' + self.path)
        began = time.monotonic()
        values = self.scrape()
        self.assertLess(time.monotonic() - began, 3)
        up = {name: values[f'brelo_up{{daemon="{name}"}}'] for name in ('hung', 'deaf', 'liar', 'flood', 'the cache')}
        self.assertEqual(up, {'hung': '0', 'deaf': '0', 'liar': '1', 'flood': '0', 'the cache': '1'})
        self.assertEqual(len(re.findall('brelo_task_live{daemon="liar"', '\n'.join(values))), 1)

    @unittest.skipUnless(shutil.which('promtool'), 'there is no promtool (package prometheus)')
    def testPrometheusHasNothingToSayAboutThem(self):
        self.enterContext(FakeDaemon(self.path, self.monitor.answers(1.0)))
        self.start(self.path, 'gone=' + self.path + 'x')
        self.scrape()
        checked = subprocess.run(['promtool', 'check', 'metrics'], input=self.text(), capture_output=True, text=True)
        self.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, '', ''))

    def testTheDashboardShowsWhatThereIs(self):
        self.enterContext(FakeDaemon(self.path, self.monitor.answers(1.0)))
        self.start(self.path)
        there = {re.match(r'\w+', each).group() for each in self.scrape()}
        with open(DASHBOARD) as file:
            panels = json.load(file)['panels']
        expressions = [target['expr'] for panel in panels for target in panel.get('targets', ())]
        used = set(re.findall(r'\bbrelo_\w+', ' '.join(expressions)))
        self.assertGreater(len(used), 8)
        self.assertEqual(used - there, set())
        if shutil.which('promtool'):
            rules = [{'record': f'r{i}', 'expr': each.replace('$__rate_interval', '1m').replace('$daemon', '.*')}
                     for i, each in enumerate(expressions)]
            with open(f'{self.folder}/rules', 'w') as file:
                json.dump({'groups': [{'name': 'dashboard', 'rules': rules}]}, file)
            checked = subprocess.run(['promtool', 'check', 'rules', file.name], capture_output=True, text=True)
            self.assertEqual(checked.returncode, 0, checked)

    def testWhatIsWrongIsSaid(self):
        for address in 'localhost:1', '127.0.0.1', ':80', '1.2.3.4:80,5.6.7.8:80', '127.0.0.1:80s':
            self.assertEqual(self.run_('--listen', address, self.path)[0], 2)
        with socket.socket() as other:
            other.bind(('127.0.0.1', 0))
            other.listen()
            code, text = self.run_('--listen', '127.0.0.1:%d' % other.getsockname()[1], self.path)
        self.assertEqual((code, 'cannot listen at' in text), (1, True))
        code, text = self.run_('/a/x.sock', '/b/x.sock')
        self.assertEqual((code, 'give their names, as in NAME=SOCKET' in text), (2, True))


if __name__ == '__main__':
    unittest.main()
