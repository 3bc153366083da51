#!/usr/bin/env python3
"""Makes doc/observe/top.svg: `brelo top` in a terminal of tmux, over the example `late` with its faults.

Usage: doc/observe/screenshot.py BUILD_DIR > doc/observe/top.svg
"""
import html
import os
import re
import subprocess
import sys
import tempfile
import time
import unicodedata

WIDTH, HEIGHT = 132, 30
CELL_WIDTH, CELL_HEIGHT = 8.4, 17
COLOURS = {31: '#ff6b68', 32: '#7ec97e', 33: '#e5c06b'}
PLAIN, BACK = '#d6d6d6', '#1b1d21'


def pieces(line, attributes):
    """The line as (column, text, attributes), by the escape sequences in it; the attributes go on over lines."""
    column = 0
    for sequence, text in re.findall(r'\x1b\[([\d;]*)m|([^\x1b]+)', line):
        if text:
            yield column, text, frozenset(attributes)
            column += sum(2 if unicodedata.east_asian_width(each) in 'WF' else 1 for each in text)
        else:
            for code in map(int, (sequence or '0').split(';')):
                if code == 0:
                    attributes.clear()
                elif code == 39:
                    attributes -= set(COLOURS)
                else:
                    attributes.add(code)


def svg(screen):
    width, height = WIDTH * CELL_WIDTH + 20, HEIGHT * CELL_HEIGHT + 20
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:g} {height:g}" width="{width:g}" '
           f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14">',
           f'<rect width="100%" height="100%" rx="6" fill="{BACK}"/>']
    going = set()
    for row, line in enumerate(screen.splitlines()):
        for column, text, attributes in pieces(line, going):
            front = next((COLOURS[each] for each in attributes if each in COLOURS), PLAIN)
            y = 10 + row * CELL_HEIGHT
            if 7 in attributes:
                out.append(f'<rect x="{10 + column * CELL_WIDTH:g}" y="{y:g}" width="{len(text) * CELL_WIDTH:g}" '
                           f'height="{CELL_HEIGHT}" fill="{front}"/>')
                front = BACK
            style = ' font-weight="bold"' if 1 in attributes else ' opacity="0.6"' if 2 in attributes else ''
            for word in re.finditer(r'\S+', text):
                x = 10 + (column + word.start()) * CELL_WIDTH
                out.append(f'<text x="{x:g}" y="{y + 13:g}" textLength="{len(word.group()) * CELL_WIDTH:g}" '
                           f'fill="{front}"{style}>{html.escape(word.group())}</text>')
    return '\n'.join([*out, '</svg>'])


def main(build):
    with tempfile.TemporaryDirectory() as folder:
        socket, server = f'{folder}/late.sock', os.path.basename(folder)
        tmux = ['tmux', '-L', server, '-f', '/dev/null', '-u']
        daemon = subprocess.Popen([f'{build}/example/late', '--stats', socket, '--stall', '--hog', '--leak'],
                                  stdout=subprocess.DEVNULL)
        try:
            subprocess.run([*tmux, 'new-session', '-d', '-x', str(WIDTH), '-y', str(HEIGHT), 'env', 'LC_ALL=C.UTF-8',
                            f'{build}/tool/brelo', 'top', '--interval', '0.7', socket], check=True)
            time.sleep(2)
            subprocess.run([*tmux, 'send-keys', 'l'], check=True)
            # Until the task behind the stalls waits.
            for tries in range(200):
                time.sleep(0.1)
                screen = subprocess.run([*tmux, 'capture-pane', '-p', '-e'], capture_output=True, text=True,
                                        check=True).stdout
                if tries > 100 and 'longest' in screen.split('load')[0] and '* index' in screen:
                    break
            print(svg(screen.replace(socket, '/run/late.sock'.ljust(len(socket)))))
        finally:
            subprocess.run([*tmux, 'kill-server'])
            daemon.terminate()
            daemon.wait()


if __name__ == '__main__':
    main(*sys.argv[1:])
