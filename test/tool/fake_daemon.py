"""A daemon as the tool sees one: it speaks doc/observe/protocol.md with documents that a test gives it, and lies in
every way that a test asks for."""

import contextlib
import json
import os
import socket
import threading
import time


def head(kind, name='cached', pid=123, started=1700000000.25, version=1):
    return {'document': kind, 'version': version,
            'process': {'name': name, 'pid': pid, 'started_unix_s': started, 'library': '1.0.0'},
            'time_unix_s': time.time(), 'time_monotonic_ns': time.monotonic_ns()}


def document(kind, members=(), **process):
    return json.dumps({**head(kind, **process), **dict(members)}).encode() + b'\n'


class Error(Exception):
    """An answer that has failed."""


class FakeDaemon:
    """Listens at `path` until it is closed. `answers` has, for the first word of a request, the answer: bytes, or a
    function of the daemon's connection and the request's words that returns them, raises Error, or returns None when it
    has sent to the connection itself whatever it likes. `requests` has all requests that have come."""

    def __init__(self, path, answers, greeting=b'framed 1\n', piece=1000):
        self.path, self.answers, self.greeting, self.piece = path, answers, greeting, piece
        self.requests = []
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen(16)
        self.connections = []
        threading.Thread(target=self.accept, daemon=True).start()

    def close(self):
        """As a daemon that dies: the socket's file stays."""
        for each in [self.listener, *self.connections]:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                connection = self.listener.accept()[0]
                self.connections.append(connection)
                threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        with contextlib.suppress(OSError, ValueError), connection:
            for line in connection.makefile('rb'):
                words = line.decode(errors='replace').split()
                if not words:
                    continue
                self.requests.append(' '.join(words))
                if words[0] == 'framed':
                    connection.sendall(self.greeting)
                else:
                    self.answer(connection, words)

    def answer(self, connection, words):
        try:
            answer = self.answers.get(words[0])
            if callable(answer):
                answer = answer(connection, words)
                if answer is None:
                    return
            if answer is None:
                raise Error(f'there is no request "{words[0]}", see "hello"')
        except Error as error:
            connection.sendall(b'!%s\n' % str(error).encode())
            return
        connection.sendall(framed(answer, self.piece))


def framed(answer, piece=1000):
    """The answer in pieces of at most so many bytes."""
    pieces = [answer[i:i + piece] for i in range(0, len(answer), piece)]
    return b''.join(b'+%d\n%s' % (len(each), each) for each in pieces) + b'.\n'
