#!/usr/bin/env python3
"""TopTest.py PATH_OF_BRELO [PATH_OF_LATE]: `brelo top` in a real terminal, and as text for scripts."""

import contextlib
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from fake_daemon import FakeDaemon, document
from fake_monitor import Monitor

BRELO = sys.argv.pop(1)
LATE = sys.argv.pop(1) if len(sys.argv) > 1 and os.path.exists(sys.argv[1]) else None
CLIENT, JOBS, JOB = ('main', 'client', 'normal'), ('main', 'TaskGroup;jobs', 'normal'), ('jobs', 'job', 'low')


def monitor(**process):
    return Monitor({CLIENT: 50, JOBS: 100, JOB: 100}, **process)


class TopTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = os.path.join(self.folder, 'daemon.sock')

    def serve(self, answers, path=None, **options):
        return self.enterContext(FakeDaemon(path or self.path, answers, **options))


class Batch(TopTest):
    def batch(self, *words, code=0, locale='C.UTF-8', interval=0.1):
        ended = subprocess.run([BRELO, 'top', '--interval', str(interval), *words], capture_output=True, timeout=60,
                               env={**os.environ, 'LC_ALL': locale, 'TZ': 'UTC'})
        self.assertEqual(ended.returncode, code, ended)
        return ended.stdout.decode() if code == 0 else ended.stderr.decode()

    def cells(self, text, name):
        """The figures of the last row of that name, by their titles."""
        titles = re.findall('^GROUP OR NAME +(.*)$', text, re.M)[-1].split()
        label = r'^[ *▾▸+-]*' + re.escape(name) + r' +([\d>-].*)$'
        return dict(zip(titles, re.findall(label, text, re.M)[-1].split()))

    def testFiguresAreOfTheLatestInterval(self):
        daemon = monitor()
        daemon.advance(1000)  # of the past, at another rate and length of runs
        daemon.rates[CLIENT], daemon.slow = 500, {CLIENT}
        daemon.longest = CLIENT
        self.serve(daemon.answers(2.0))
        text = self.batch('--batch', '2', '--width', '130', self.path)
        cells = self.cells(text, 'client')
        # 500 runs a second of 25.7 ms; percentiles are the middles of buckets of 2 to 3 %.
        self.assertEqual({each: cells[each] for each in ('%LOOP', 'RUNS/S', 'RUN', 'WORK/S', 'VIOL', 'TASKS', 'PEND')},
                         {'%LOOP': '1285', 'RUNS/S': '500', 'RUN': '25.7ms', 'WORK/S': '1500', 'VIOL': '1000',
                          'TASKS': '10', 'PEND': '7'})
        self.assertEqual((cells['RUN99'], cells['RUN50'], cells['WAIT99']), ('25.4ms', '25.4ms', '1.04ms'))
        self.assertIn('the latest 2.00s', text)
        self.assertIn('longest *main/client 3.00ms', text)
        self.assertIn('* client', text)
        whole = self.cells(self.batch('--batch', '1', '--since-clear', self.path), 'client')
        self.assertAlmostEqual(float(whole['RUNS/S']), 51.8, delta=3)
        flat = self.batch('--batch', '1', '--flat', '--sort', 'name', '--filter', 'JOB', self.path)
        self.assertEqual(re.findall(r'^(\w+/\S+)', flat, re.M), ['main/TaskGroup;jobs', 'jobs/job'])
        ascii_ = self.batch('--batch', '2', self.path, locale='C')
        self.assertTrue(ascii_.isascii())
        self.assertIn('- jobs', ascii_)

    def testRestartsAndClearingsShow(self):
        daemons = [monitor(), monitor(), monitor(pid=124, started=1700000050.0)]
        daemons[1].runs, daemons[1].now = daemons[0].runs, daemons[0].now
        asked = []

        def answer(*_):
            asked.append(None)
            if len(asked) == 3:
                daemons[0].clear()
            return daemons[0 if len(asked) < 5 else 2].answers(1.0)['monitor'](None, ['monitor', 'histograms'])
        self.serve({'monitor': answer})
        text = self.batch('--batch', '6', self.path).split('\n\n')
        self.assertIn('the latest', text[1])
        self.assertIn('since cleared, 1.00s   its figures have been cleared', text[2])
        self.assertEqual(self.cells(text[2], 'client')['RUNS/S'], '50')
        self.assertIn('pid 124', text[4])
        self.assertIn('the daemon has restarted', text[4])
        self.assertIn('the latest', text[5])

    def testWhatADaemonSaysIsNotBelieved(self):
        names = [{'group': f'g{i}', 'name': f'TaskGroup;g{(i + 1) % 500}', 'is_group': True, 'runs': 1e300,
                  'run_s': -5, 'run_histogram_ns': [[5, 1], [4, 9], 'x', [None, {}]], 'wait_mean_ns': 'long'}
                 for i in range(500)]
        base = {'window': {'length_s': 1e-300}, 'loop': {'running_s': 1e308, 'slip_ns': [1], 'longest_queued': {}}}
        for lie in ([], {'loop': 5}, base, {**base, 'names': {}}):
            with FakeDaemon(self.path, {'monitor': document('monitor', lie)}):
                self.assertIn('lacks its', self.batch('--batch', '1', self.path, code=1))
        with FakeDaemon(self.path, {'monitor': document('monitor', {**base, 'names': [*names, 5, None, []]})}):
            text = self.batch('--batch', '2', '--width', '250', self.path)
        for update in text.split('\n\n')[:2]:
            shown = re.findall(r'^ *▾? *(g\d+) ', update, re.M)
            self.assertGreaterEqual(set(shown), {f'g{i}' for i in range(500)})
            self.assertLess(len(shown), 1000)
        for document_ in b'', b'[' * 100000, b'{"document":"monitor","version":2}', b'{"document":"monitor","version":1e999}':
            with FakeDaemon(self.path, {'monitor': document_}):
                self.assertRegex(self.batch('--batch', '1', self.path, code=1), r'\Abrelo: [^\n]+\n\Z')

    @unittest.skipUnless(LATE, 'the example late is not built')
    def testARealDaemonShowsItsFaults(self):
        daemon = subprocess.Popen([LATE, '--stats', self.path, '--stall', '--hog'], stdout=subprocess.DEVNULL)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.terminate)
        while not os.path.exists(self.path):
            time.sleep(0.01)
        text = self.batch('--batch', '2', self.path, interval=1.5)
        self.assertIn('late  pid %d ' % daemon.pid, text)
        index, reload = self.cells(text, 'index (low)'), self.cells(text, 'reload')
        self.assertGreater(float(index['%LOOP']), 2)  # 60 ms twice a second
        self.assertGreater(int(index['VIOL']), 0)
        self.assertGreater(float(reload['%LOOP']), 10)  # 300 ms a second
        self.assertRegex(reload['RUN99'], r'^[23]\d\dms$')
        self.assertRegex(self.cells(text, 'tick (high)')['RUNS/S'], r'^[2345]\d')

    def testOneOfSeveralDaemonsIsEnough(self):
        self.serve(monitor().answers(1.0))
        text = self.batch('--batch', '1', self.path + 'x', self.path)
        self.assertIn('NOT REACHED', text)
        self.assertIn('client', text)
        self.assertIn('this is no terminal; use --batch', self.batch(self.path, code=2))


@unittest.skipUnless(shutil.which('tmux'), 'there is no tmux')
class Terminal(TopTest):
    def setUp(self):
        super().setUp()
        self.server = None

    def tmux(self, *words):
        ended = subprocess.run(['tmux', '-L', self.server, '-f', '/dev/null', *words], capture_output=True, timeout=20)
        self.assertEqual(ended.returncode, 0, ended)
        return ended.stdout.decode()

    def start(self, *sockets, size=(80, 24), locale='C.UTF-8', options=''):
        """A shell runs the tool and tells afterwards how the terminal is."""
        command = (f'stty -g > {self.folder}/before; LC_ALL={locale} TZ=UTC sh -c "echo \\$\\$ > {self.folder}/pid; '
                   f'exec {BRELO} top --interval 0.1 {options} {" ".join(sockets or [self.path])}"; '
                   f'code=$?; stty -g > {self.folder}/after; echo "ended with $code"; sleep 60')
        self.server = os.path.basename(self.folder) + str(time.monotonic_ns())  # a dying one is not met
        self.addCleanup(subprocess.run, ['tmux', '-L', self.server, 'kill-server'], stderr=subprocess.DEVNULL)
        self.tmux('-u', 'new-session', '-d', '-x', str(size[0]), '-y', str(size[1]), 'sh', '-c', command)

    def pid(self):
        with open(f'{self.folder}/pid') as file:
            return int(file.read())

    def cpuSeconds(self, during):
        def used():
            with open(f'/proc/{self.pid()}/stat') as file:
                return sum(map(int, file.read().rsplit(')', 1)[1].split()[11:13])) / os.sysconf('SC_CLK_TCK')
        before = used()
        time.sleep(during)
        return used() - before

    def screen(self, *options):
        return self.tmux('capture-pane', '-p', *options)

    def await_(self, pattern, seconds=15):
        """The screen once it has the pattern."""
        end = time.monotonic() + seconds
        while not re.search(pattern, text := self.screen(), re.M):
            self.assertLess(time.monotonic(), end, f'no "{pattern}" in\n{text}')
            time.sleep(0.03)
        return text

    def keys(self, *keys):
        self.tmux('send-keys', *keys)

    def assertRestored(self, how='ended with 0'):
        self.await_(how)
        with open(f'{self.folder}/before') as before, open(f'{self.folder}/after') as after:
            self.assertEqual(before.read(), after.read())

    def testEveryKeyDoesWhatTheHelpSays(self):
        daemon = monitor()
        daemon.slow, daemon.longest = {JOB}, CLIENT
        fake = self.serve(daemon.answers(1.0))
        self.start()
        text = self.await_('the latest 1.00s')
        self.assertEqual(len(text.splitlines()), 24)
        for part in ('cached  pid 123  up', 'live$', r'running +3.0%', r'^slip +p50 1.02us', r'longest \*main/client',
                     r'^load +▁', r'▾ jobs +2.0 +100', r'^ +job \(low\) +257', r'^ +\* client +1.0 +50', '^q quit  h help'):
            self.assertRegex(re.sub('(?m)^', '', text), '(?m)' + part)
        self.assertRegex(self.screen('-e'), r'\x1b\[[0-9;]*31[0-9;]*m[^\n]*job \(low\)')
        self.keys('j', 'Down', 'f')  # what is no key does nothing
        self.assertNotIn('job (low)', self.await_('▸ jobs'))
        self.keys('Enter')
        self.await_(r'job \(low\)')
        self.keys('F')
        self.await_('▸ jobs')
        self.keys('F', 't')
        self.await_('^jobs/job .*\n^main/TaskGroup;j~')
        self.keys('t', 'n')
        self.await_(r'▾ jobs.*\n.*job.*\n.*client')
        self.keys('r')
        self.await_(r'main.*\n.*client.*\n.*jobs')
        self.keys('r', 's', 'S', 's')
        self.await_(r'main.*\n.*jobs')
        self.keys('/', 'c', 'l', 'x', 'BSpace', 'Enter')
        self.assertNotIn('jobs', self.await_('names with "cl"'))
        self.keys('Escape')
        self.await_('jobs')
        self.keys('w')
        self.await_('since cleared, ')
        self.keys('w', 'e')
        self.await_(r'latest events\n(.*run start +n event\d+\n){8}')
        self.keys('l')
        self.await_(r'stalls\n.*main/sweeper 120ms blocked, 2 times, longest 350ms LASTING in')
        self.tmux('resize-window', '-x', '120', '-y', '24')
        self.await_(r'LASTING in Cache::sweep\(\), at read')
        self.tmux('resize-window', '-x', '80', '-y', '24')
        self.keys('l', 'h')
        self.await_('99 of 100 runs were no longer')
        self.keys('h', 'p')
        self.await_('PAUSED')
        time.sleep(0.3)
        asked = len(fake.requests)
        time.sleep(0.3)
        self.assertEqual(len(fake.requests), asked)
        self.keys('p')
        self.await_('live')
        self.keys('c', 'n', 'c', 'y')
        self.await_('cleared')
        self.assertEqual(fake.requests.count('clear'), 1)
        self.keys('+', '-', '9', 'Tab', 'BTab', 'PPage', 'NPage', 'Home', 'End', 'Up', 'q')
        self.assertRestored()

    def testTheTerminalMayHaveAnySize(self):
        daemon = Monitor({('main', f'name{i:03}', 'normal'): i + 1 for i in range(100)}, name='日本語\x1b[2Jevil\udcff'[:-1])
        self.serve(daemon.answers(1.0))
        self.start(size=(200, 60))
        text = self.await_('the latest')
        self.assertIn('日本語?[2Jevil', text)
        self.assertIn(self.path, text)
        self.assertRegex(text, 'RUNMAX.*QUEUED')
        self.assertRegex(text, r'name099.*\n(.*name0\d\d.*\n){49}')
        self.keys('End')
        self.await_('name000')
        for width, height in ((80, 24), (10, 3), (1, 1), (300, 100), (41, 7)):
            self.tmux('resize-window', '-x', str(width), '-y', str(height))
            time.sleep(0.15)
        self.tmux('resize-window', '-x', '80', '-y', '24')
        text = self.await_('name000')
        self.assertNotIn('RUNMAX', text)
        self.assertLessEqual(max(map(len, text.splitlines())), 80)
        self.keys('Home')
        self.await_('name099')
        self.keys('q')
        self.assertRestored()

    def testDaemonsThatDieHangAndRestartAreAskedAgain(self):
        other = self.path + '2'
        first, hung = monitor(), FakeDaemon(other, {'monitor': lambda *_: time.sleep(60)})
        self.enterContext(hung)
        fake = self.serve(first.answers(1.0))
        self.start(self.path, other)
        self.await_(r'^ 1 cached  +2 ')
        self.await_('the latest')
        self.keys('2')
        self.await_('NO ANSWER for 1.*s')
        self.keys('BTab')
        self.keys('p')
        self.await_('PAUSED')
        fake.close()
        self.await_('NOT REACHED')
        self.assertLess(self.cpuSeconds(0.5), 0.2)  # nor does it ask all the time
        self.keys('p')
        self.await_('1 cached!.*\n(.*\n)*.*nobody listens')
        with FakeDaemon(self.path, monitor(pid=124, name='again').answers(1.0)):
            self.await_('again  pid 124.*live')
            self.await_('the daemon has restarted')
        with FakeDaemon(self.path, {'monitor': b'{}'}):
            self.await_('the answer is no document "monitor"')
        self.keys('Tab', 'q')
        self.assertRestored()

    def testSignalsGiveTheTerminalBack(self):
        self.serve(monitor().answers(1.0))
        for number in signal.SIGTERM, signal.SIGINT, signal.SIGHUP:
            self.start()
            self.await_('the latest')
            os.kill(self.pid(), number)
            self.assertRestored(f'ended with {128 + number}')
            self.tmux('kill-server')

    def testALocaleWithoutUtf8HasItsOwnMarks(self):
        self.serve(Monitor({('main', 'naïve', 'normal'): 1}).answers(1.0))
        self.start(locale='C', options='--sort name')
        text = self.await_('the latest')
        self.assertTrue(text.isascii(), text)
        self.assertIn('na?ve', text)
        self.tmux('kill-server')  # the terminal vanishes: the tool has to end
        end = time.monotonic() + 10
        while os.path.exists(f'/proc/{self.pid()}'):
            self.assertLess(time.monotonic(), end)
            time.sleep(0.05)


if __name__ == '__main__':
    unittest.main()
