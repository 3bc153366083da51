#!/usr/bin/env python3
"""Draws a part of a file of `brelo timeline` the way Perfetto lays it out: tracks, slices, and the flows from
requests to runs. Makes doc/observe/timeline.svg of three seconds of the example `late`:

    build/release/example/late --stats /tmp/late.sock --stall --hog &
    build/release/tool/brelo timeline /tmp/late.sock -o late.json --seconds 3
    doc/observe/timeline_picture.py late.json > doc/observe/timeline.svg
"""
import html
import json
import sys

WIDTH, LEFT, ROW, TOP = 1120, 130, 30, 34
COLOURS = ['#5b8def', '#7ec97e', '#e5c06b', '#c58af9', '#5cc8c8', '#f29d6b']
FRONT, BACK, DIM = '#d6d6d6', '#1b1d21', '#33363d'


def main(path):
    events = json.load(open(path))['traceEvents']
    names = {e['tid']: e['args']['name'] for e in events if e.get('name') == 'thread_name'}
    order = {e['tid']: e['args']['sort_index'] for e in events if e.get('name') == 'thread_sort_index'}
    tracks = [tid for tid in sorted(names, key=order.get) if 'stats' not in names[tid]]
    slices = [e for e in events if e['ph'] == 'X' and e['tid'] in tracks]
    open_slices = []
    for e in events:
        if e['ph'] == 'B':
            open_slices.append(e)
        elif e['ph'] == 'E':
            begin = open_slices.pop()
            if begin['name'] != 'requests':
                slices.append({**begin, 'dur': e['ts'] - begin['ts']})
    # The second half of a second around the longest run.
    longest = max((e for e in slices if e['tid'] != 1), key=lambda e: e['dur'])
    length = max(6e5, longest['dur'] * 2)
    begin = longest['ts'] - length / 4
    scale = (WIDTH - LEFT - 12) / length

    def x(ts):
        return LEFT + min(max((ts - begin) * scale, 0), WIDTH - LEFT - 12)

    height = TOP + ROW * len(tracks) + 10
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" '
           f'font-family="DejaVu Sans, Helvetica, sans-serif" font-size="12">',
           f'<rect width="100%" height="100%" rx="6" fill="{BACK}"/>']
    for i in range(int(length / 1e5) + 1):
        at = x(begin + i * 1e5)
        out.append(f'<line x1="{at:.1f}" x2="{at:.1f}" y1="{TOP - 8}" y2="{height - 6}" stroke="{DIM}"/>'
                   f'<text x="{at + 3:.1f}" y="{TOP - 14}" fill="{FRONT}" opacity="0.7">{i * 100} ms</text>')
    row = {tid: TOP + i * ROW for i, tid in enumerate(tracks)}
    tasks = sorted({e['name'] for e in slices})
    for tid in tracks:
        out.append(f'<text x="10" y="{row[tid] + 18}" fill="{FRONT}">{html.escape(names[tid])}</text>')
    starts = {}
    for e in events:
        if e['ph'] == 's':
            starts[e['id']] = e
        elif e['ph'] == 'f' and e['id'] in starts and e['tid'] in row and begin < e['ts'] < begin + length:
            s = starts[e['id']]
            if s['tid'] in row:
                out.append(f'<path d="M{x(s["ts"]):.1f} {row[s["tid"]] + 13} L{x(e["ts"]):.1f} {row[e["tid"]] + 13}" '
                           f'stroke="#8a8f99" stroke-width="0.7" fill="none"/>')
    for e in sorted(slices, key=lambda e: -e['dur']):
        if e['ts'] + e['dur'] < begin or e['ts'] > begin + length:
            continue
        left, right = x(e['ts']), x(e['ts'] + e['dur'])
        colour = '#ff6b68' if e['tid'] == 2 else COLOURS[tasks.index(e['name']) % len(COLOURS)]
        out.append(f'<rect x="{left:.1f}" y="{row[e["tid"]] + 3}" width="{max(right - left, 1.2):.1f}" height="{ROW - 8}" '
                   f'rx="2" fill="{colour}"/>')
        if right - left > 9 * len(e['name']):
            out.append(f'<text x="{left + 5:.1f}" y="{row[e["tid"]] + 18}" fill="{BACK}">{html.escape(e["name"])}</text>')
    print('\n'.join([*out, '</svg>']))


main(*sys.argv[1:])
