"""The figures of a daemon that works at a steady rate, as documents *monitor*, *history* and *stalls* of fake_daemon.py."""

import json
import time

from fake_daemon import head

# Upper bounds of buckets as daemons have them: 32 steps to an octave.
RUN_NS, LONG_NS, WAIT_NS, SLIP_NS = 200704, 25690112, 1048576, 1024


class Monitor:
    """By name: (group, name, priority): runs a second. `slow` names run for 25 ms, in violation of their quantum,
    others for 0.2 ms; all wait for 1 ms. Time passes only by `advance`."""

    def __init__(self, rates, name='cached', pid=123, started=1700000000.25):
        self.rates, self.process = rates, {'name': name, 'pid': pid, 'started': started}
        self.now = started + 100
        self.slow = set()
        self.longest = None
        self.queued = 0.003
        self.events = 0
        self.cleared_count = -1
        self.clear()

    def clear(self):
        self.cleared, self.cleared_count = self.now, self.cleared_count + 1
        self.runs = {key: {} for key in self.rates}

    def advance(self, seconds):
        self.now += seconds
        for key, rate in self.rates.items():
            below = LONG_NS if key in self.slow else RUN_NS
            counts = self.runs.setdefault(key, {})
            counts[below] = counts.get(below, 0) + round(rate * seconds)

    def line(self, key, histograms):
        group, name, priority = key
        counts = self.runs[key]
        runs, length = sum(counts.values()), max(self.now - self.cleared, 1e-9)
        used = sum(below * count for below, count in counts.items()) / 1e9
        slow = counts.get(LONG_NS, 0)
        line = {'group': group, 'name': name, 'priority': priority, 'is_group': name.startswith('TaskGroup;'),
                'parent_group': None, 'tasks': 10, 'runnable': 1, 'pending': 7,
                'runs': runs, 'runs_per_s': runs / length, 'run_s': used, 'run_ratio': used / length,
                'work': 3 * runs, 'work_per_s': 3 * runs / length, 'violations_200': slow, 'violations_500': 0}
        for kind, below in ('run', LONG_NS if slow else RUN_NS), ('wait', WAIT_NS):
            line.update({f'{kind}_mean_ns': (used * 1e9 / runs if kind == 'run' else below) if runs else 0})
            line.update({f'{kind}_{at}_ns': below - 1 if runs else 0 for at in ('p50', 'p90', 'p99', 'p999', 'max')})
        if histograms:
            line['run_histogram_ns'] = sorted([below, count] for below, count in counts.items() if count)
            line['wait_histogram_ns'] = [[WAIT_NS, runs]] if runs else []
        return line

    def document(self, histograms=True):
        names = sorted((self.line(key, histograms) for key in self.rates), key=lambda line: -line['run_s'])
        length = self.now - self.cleared
        outer = [line for line in names if line['group'] == 'main']
        running = sum(line['run_s'] for line in outer)
        runs = sum(line['runs'] for line in outer)
        loop = {'running_s': running, 'polling_s': 0.05 * length, 'waiting_s': 0.95 * length - running,
                'thread_cpu_s': running, 'looks': runs, 'runs': runs, 'waits': runs,
                'tasks': 10 * len(names), 'runnable': len(names),
                'slip_ns': {'count': runs, 'mean': SLIP_NS, 'p50': 1000, 'p90': 1010, 'p99': 1020, 'p999': 1023,
                            'max': 1023},
                'next_timer_in_s': 0.25, 'present_run': None,
                'longest_queued': self.longest and {'group': self.longest[0], 'name': self.longest[1],
                                                    'priority': self.longest[2], 'queued_s': self.queued}}
        if histograms:
            loop['slip_histogram_ns'] = [[SLIP_NS, runs]] if runs else []
        return self.encode('monitor', {
            'window': {'cleared_unix_s': self.cleared, 'length_s': length, 'cleared_count': self.cleared_count},
            'loop': loop, 'columns': [], 'names': names, 'names_total': len(names), 'names_shown': len(names),
            'rest': None, 'tasks_counted': 10 * len(names)})

    def encode(self, kind, members):
        document = {**head(kind, **self.process), 'time_unix_s': self.now}
        return json.dumps({**document, **members}).encode() + b'\n'

    def history(self, words):
        options = dict(word.split('=') for word in words[1:])
        first = int(options.get('since', 1))
        last = min(self.events, first + int(options.get('limit', 10000)) - 1)
        now = time.monotonic_ns()
        events = [[now, 'run start', f'n event{number}'] for number in range(first, last + 1)]
        return self.encode('history', {'capacity': 1000, 'recorded': self.events, 'first': first, 'lost': 0,
                                       'events': events})

    def stalls(self):
        frames = [{'module': f'/bin/{module}', 'offset': '0x1', 'function': function, 'address': '0x1'}
                  for module, function in (('libc', ''), ('libc', 'read'), ('cached', 'Cache::sweep()'), ('cached', 'main'))]
        stall = {'group': 'main', 'name': 'sweeper', 'count': 2, 'lasting': True, 'first_unix_s': self.now,
                 'last_unix_s': self.now, 'last_started_monotonic_ns': 1, 'longest_s': 0.35, 'last_s': 0.12,
                 'last_cpu_s': 0.001, 'frames': frames}
        return self.encode('stalls', {'limit_s': 0.1, 'caught': 5, 'suppressed': 1, 'stalls': [stall]})

    def answers(self, step=0.0):
        """For FakeDaemon: each document *monitor* is so many seconds after the one before."""
        def monitor(_, words):
            self.advance(step)
            self.events += 3
            return self.document('histograms' in words)

        def clear(*_):
            self.clear()
            return self.encode('hello', {})
        return {'monitor': monitor, 'clear': clear, 'history': lambda _, words: self.history(words),
                'stalls': lambda *_: self.stalls(), 'hello': lambda *_: self.encode('hello', {})}
