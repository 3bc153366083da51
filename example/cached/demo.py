#!/usr/bin/env python3
"""demo.py PATH_OF_CACHED: a conversation with the cache, on each backend."""

import re
import socket
import subprocess
import sys

TALK = '''set greeting 7 60 5
hello
append greeting 0 0 7
, world
gets greeting missing
add greeting 0 0 1
!
set visits 0 0 2
41
incr visits 1
delete visits
gat 1 greeting
flush_all
get greeting
'''


def ask(client, command, last):
    client.sendall(command.encode())
    text = ''
    while not re.search(last, text):
        text += client.recv(65536).decode()
    return text


def talk(client):
    lines = iter(TALK.splitlines())
    for line in lines:
        command = line + '\r\n'
        if re.match('set|add|append', line):
            command += next(lines) + '\r\n'
        for sent in command.splitlines():
            print(f'    > {sent}')
        last = r'END\r\n$' if re.match('g', line) else r'\n$'
        for answer in ask(client, command, last).splitlines():
            print(f'    {answer}')


for backend in 'host', 'libevent':
    server = subprocess.Popen([sys.argv[1], '--listen', '127.0.0.1:0', '--backend', backend],
                              stdout=subprocess.PIPE, text=True)
    address = server.stdout.readline().split()[-1]
    print(f'== cached on the {backend} backend, {address}')
    host, port = address.split(':')
    with socket.create_connection((host, int(port)), timeout=10) as client:
        talk(client)
        print('Its statistics:')
        for figure in re.findall('STAT (.*)\r\n', ask(client, 'stats\r\n', r'END\r\n$')):
            print(f'    {figure}')
    server.terminate()
    if server.wait() != 0:
        sys.exit(f'cached ended with status {server.returncode}')
