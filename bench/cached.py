#!/usr/bin/env python3
"""cached.py PATH_OF_CACHED [--small]: CPU for a request of example/cached, on each backend, beside
memcached with one thread. memcaslap asks both: nine of ten requests get a value of 1 KiB, one sets it."""

import os
import socket
import statistics
import subprocess
import sys
import time

SMALL = '--small' in sys.argv
CONNECTIONS = [1, 50] if SMALL else [1, 50, 500]
ROUNDS, SECONDS = (1, 1) if SMALL else (5, 2)
# Each has a processor of its own, or where they happen to be decides what a wake-up costs.
PROCESSORS = sorted(os.sched_getaffinity(0))
TICK = os.sysconf('SC_CLK_TCK')


def freePort():
    with socket.create_server(('127.0.0.1', 0)) as probe:
        return probe.getsockname()[1]


def servers(cached):
    for backend in 'host', 'libevent':
        yield f'cached, {backend}', lambda port, backend=backend: [
            cached, '--listen', f'127.0.0.1:{port}', '--backend', backend]
    yield 'memcached -t 1', lambda port: [
        'memcached', '-t', '1', '-l', '127.0.0.1', '-p', str(port), '-U', '0', '-u', 'nobody']


def connect(port):
    for _ in range(200):
        try:
            return socket.create_connection(('127.0.0.1', port), timeout=10)
        except ConnectionRefusedError:
            time.sleep(0.01)
    raise SystemExit('a server does not listen')


def requests(port):
    with connect(port) as client:
        client.sendall(b'stats\r\n')
        text = b''
        while not text.endswith(b'END\r\n'):
            text += client.recv(65536)
    figures = dict(line.split()[1:3] for line in text.splitlines() if line.startswith(b'STAT'))
    return int(figures[b'cmd_get']) + int(figures[b'cmd_set'])


def cpuSeconds(server):
    with open(f'/proc/{server.pid}/stat') as stat:
        return sum(map(int, stat.read().rsplit(')', 1)[1].split()[11:13])) / TICK


def start(command, processor):
    return subprocess.Popen(command, stdout=subprocess.DEVNULL,
                            preexec_fn=lambda: os.sched_setaffinity(0, {processor}))


def measure(command, connections):
    """Microseconds of the server's CPU for a request."""
    port = freePort()
    server = start(command(port), PROCESSORS[-1])
    try:
        connect(port).close()
        before = requests(port), cpuSeconds(server)
        load = ['memcaslap', '-s', f'127.0.0.1:{port}', '-T', '1', '-c', str(connections),
                '-t', f'{SECONDS}s']
        if start(load, PROCESSORS[0]).wait() != 0:
            raise SystemExit('memcaslap failed')
        after = requests(port), cpuSeconds(server)
        return 1e6 * (after[1] - before[1]) / (after[0] - before[0])
    finally:
        server.terminate()
        server.wait()


def main():
    cached = [argument for argument in sys.argv[1:] if argument != '--small'][0]
    print(f'{"server":<18}{"connections":>12}{"CPU us/request":>16}{"ratio":>8}')
    for connections in CONNECTIONS:
        rounds = [[measure(command, connections) for _, command in servers(cached)]
                  for _ in range(ROUNDS)]
        medians = [statistics.median(column) for column in zip(*rounds)]
        for (name, _), cpu in zip(servers(cached), medians):
            print(f'{name:<18}{connections:>12}{cpu:>16.2f}{cpu / medians[-1]:>8.2f}')


main()
