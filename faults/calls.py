#!/usr/bin/env python3
"""calls.py BUILD_DIR [--step N]: each system call of the library, of wordd and of the examples fails
once, with each error that can occur; prints how many of how many were survived, and how."""

import argparse
import collections
import concurrent.futures
import errno
import json
import os
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading

# What the manual gives for arguments that are right, on pipes and sockets.
NO_DESCRIPTORS = ['EMFILE', 'ENFILE', 'ENOMEM']
ERRORS = {
    'accept4': ['EINTR', 'ECONNABORTED', 'EMFILE', 'ENFILE', 'ENOBUFS', 'ENOMEM'],
    'bind': ['EADDRINUSE', 'EACCES'],
    'close': ['EINTR', 'EIO'],
    'connect': ['ECONNREFUSED', 'EACCES', 'EAGAIN'],
    'dup': ['EMFILE'],
    'epoll_create1': NO_DESCRIPTORS,
    'epoll_ctl': ['ENOMEM', 'ENOSPC'],
    'epoll_pwait2': ['EINTR', 'ENOSYS', 'EPERM'],
    'epoll_wait': ['EINTR'],
    'eventfd': NO_DESCRIPTORS,
    'fcntl': ['EMFILE'],
    'flock': ['EINTR', 'EWOULDBLOCK', 'ENOLCK'],
    'getsockname': ['ENOBUFS'],
    'getsockopt': ['ENOBUFS'],
    'listen': ['EADDRINUSE'],
    'lstat': ['EACCES', 'ENOMEM'],
    'open': NO_DESCRIPTORS + ['EACCES'],
    'pipe2': NO_DESCRIPTORS,
    'poll': ['EINTR', 'ENOMEM'],
    'ppoll': ['EINTR', 'ENOMEM'],
    'read': ['EINTR', 'EAGAIN', 'ECONNRESET'],
    'recv': ['EINTR', 'EAGAIN', 'ECONNRESET', 'ETIMEDOUT', 'ENOMEM'],
    'send': ['EINTR', 'EAGAIN', 'ECONNRESET', 'EPIPE', 'ENOBUFS', 'ENOMEM'],
    'sendmsg': ['EINTR', 'EAGAIN', 'ECONNRESET', 'EPIPE', 'ENOBUFS', 'ENOMEM'],
    'sendto': ['EINTR', 'EAGAIN', 'ENOBUFS', 'ECONNREFUSED'],
    'setsockopt': ['ENOMEM'],
    'shutdown': ['ENOTCONN'],
    'signalfd': NO_DESCRIPTORS,
    'socket': NO_DESCRIPTORS + ['ENOBUFS'],
    'socketpair': NO_DESCRIPTORS,
    'timerfd_create': NO_DESCRIPTORS,
    'timerfd_settime': [],
    'unlink': ['EACCES', 'EBUSY'],
    'waitid': ['EINTR'],
    'write': ['EINTR', 'EAGAIN', 'EPIPE', 'ECONNRESET', 'ENOMEM'],
    'writev': ['EINTR', 'EAGAIN', 'EPIPE', 'ECONNRESET', 'ENOMEM'],
}
LIMIT = 15  # seconds, for what takes a tenth of one
PATIENCE = 3


class Refused(Exception):
    """One client was not served."""


def ended(process, out, errors, right):
    """How a program ended that should have printed `right`."""
    if process.returncode == 0:
        return 'survived' if re.search(right, out, re.S) else 'bad: wrong output'
    if process.returncode == -signal.SIGABRT and errors:
        return 'ended'
    if process.returncode > 0 and (out or errors):
        return 'reported'
    return f'bad: status {process.returncode}'


def run(command, right, environment):
    with subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        try:
            out, errors = process.communicate(timeout=LIMIT)
        except subprocess.TimeoutExpired:
            process.kill()
            return 'bad: hangs'
    return ended(process, out, errors, right)


def ask(port, text, answer):
    with socket.create_connection(('127.0.0.1', port), timeout=LIMIT) as client:
        client.sendall(text)
        client.shutdown(socket.SHUT_WR)
        if b''.join(iter(lambda: client.recv(65536), b'')) != answer:
            raise Refused


def readStatistics(path):
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(LIMIT)
        client.connect(path)
        client.sendall(b'report')
        client.shutdown(socket.SHUT_WR)
        text = b''.join(iter(lambda: client.recv(65536), b''))
    try:
        json.loads(text)
    except ValueError as error:
        raise Refused from error


def twice(request, *arguments):
    """Whether it had to be made twice: who is refused comes again."""
    try:
        request(*arguments)
        return False
    except (Refused, ConnectionError):
        pass
    except OSError as error:
        if error.errno != errno.ENOTCONN:
            raise
    request(*arguments)
    return True


def talk(daemon, port, path):
    refused = twice(ask, port, b'one two two ' * 3000, b'6000 two\n3000 one\n')
    refused |= twice(readStatistics, path)
    daemon.send_signal(signal.SIGUSR1)
    refused |= twice(ask, port, b'the last', b'1 last\n1 the\n')
    return refused


def wordd(command, environment):
    with tempfile.TemporaryDirectory() as directory:
        path = os.path.join(directory, 'stats')
        with subprocess.Popen([*command, '--stats', path], env=environment,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True) as daemon:
            limit = threading.Timer(LIMIT, daemon.kill)
            limit.start()
            refused = False
            try:
                if select.select([daemon.stdout], [], [], PATIENCE)[0]:
                    line = daemon.stdout.readline()
                else:  # the line got lost
                    line = ''
                if line.startswith('listening'):
                    refused = talk(daemon, int(line.rsplit(':', 1)[1]), path)
                daemon.send_signal(signal.SIGTERM)
                out, errors = daemon.communicate()
            except (Refused, OSError) as error:
                daemon.send_signal(signal.SIGTERM)
                out, errors = daemon.communicate()
                result = ended(daemon, out, errors, '')
                return result if result == 'ended' else f'bad: {error!r}: {result}: {errors}'
            finally:
                limit.cancel()
                daemon.kill()
        result = ended(daemon, out, errors, '')
        return 'reported' if result == 'survived' and refused else result


def subjects(build):
    def example(name, right):
        path = f'{build}/example/{name}'
        return name, lambda environment: run([path], right, environment)

    for backend in 'host', 'libevent':
        scenario = [f'{build}/faults/faults_memory', '--here', '--backend', backend]
        yield (f'library, {backend}',
               lambda environment, command=scenario: run(
                   command, 'came to its end', {**environment, 'FAULT_LIBRARIES': '1'}))
        daemon = [f'{build}/example/wordd', '--backend', backend]
        yield f'wordd, {backend}', lambda environment, command=daemon: wordd(command, environment)
    yield example('hello', '1 left')
    yield example('periodic_timer', 'stopped')
    yield example('descriptors', 'the last line')
    yield example('fair_groups', 'in two groups')
    yield example('stats_socket', '^')  # its document is cut where its reader seems gone
    yield example('two_roots', 'has done.*has done')
    yield example('virtual_time_test', 'passed')


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('build')
    parser.add_argument('--step', type=int, default=1, help='every so many')
    parser.add_argument('--jobs', type=int, default=8, help='runs at a time')
    parser.add_argument('--only', default='', help='programs whose name begins so')
    options = parser.parse_args()
    preload = os.path.abspath(f'{options.build}/faults/libfaults_calls.so')
    plain = {**os.environ, 'LD_PRELOAD': preload}

    def counted(subject):
        with tempfile.NamedTemporaryFile('r') as counts:
            result = subject({**plain, 'FAULT_COUNTS': counts.name})
            if result != 'survived':
                sys.exit(f'without a fault: {result}')
            return [(call, int(count)) for call, count in map(str.split, counts)]

    def tried(subject, call, nth, error):
        return subject({**plain, 'FAULT': f'{call}:{nth}:{getattr(errno, error)}'})

    print(f'{"program":<18} {"failed":>7} {"survived":>9} {"reported":>9} {"ended so":>9} {"bad":>4}')
    bad = 0
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for name, subject in subjects(options.build):
            if not name.startswith(options.only):
                continue
            faults = [(call, nth, error) for call, count in counted(subject)
                      for nth in range(1, count + 1) for error in ERRORS[call]][::options.step]
            results = list(pool.map(lambda fault: tried(subject, *fault), faults))
            kinds = collections.Counter(result.split(':')[0] for result in results)
            print(f'{name:<18} {len(faults):>7} {kinds["survived"]:>9} {kinds["reported"]:>9} '
                  f'{kinds["ended"]:>9} {kinds["bad"]:>4}', flush=True)
            for fault, result in zip(faults, results):
                if result.startswith('bad'):
                    print(f'  {result}: {":".join(map(str, fault))}', flush=True)
            bad += kinds['bad']
    sys.exit(bad != 0)


if __name__ == '__main__':
    main()
