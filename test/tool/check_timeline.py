#!/usr/bin/env python3
"""check_timeline.py FILE: whether a trace file is one that viewers show as it is meant. It is JSON; every track that has
events is named, once; slices have an end, none before its start, and those of a track nest; every flow has one start and
one end, not before it, each within a slice; times are of one clock. Prints how much of each there is."""

import collections
import decimal
import json
import sys


class Wrong(Exception):
    pass


def expect(holds, *what):
    if not holds:
        raise Wrong(*what)


def nanoseconds(event, member='ts'):
    value = event.get(member)
    expect(isinstance(value, decimal.Decimal) or type(value) is int, f'no number is {member} of', event)
    expect(value * 1000 == int(value * 1000) and value >= 0, f'no time is {member} of', event)
    return int(value * 1000)


def slicesOf(events):
    """All slices by track, as pairs of start and end; those by B and E have to be in order."""
    slices, opened, latest = collections.defaultdict(list), collections.defaultdict(list), {}
    for event in events:
        track = event['pid'], event['tid']
        if event['ph'] in 'BE':
            time = nanoseconds(event)
            expect(time >= latest.get(track, 0), 'times go back at', event)
            latest[track] = time
            if event['ph'] == 'B':
                expect(event['name'], 'no name is in', event)
                opened[track].append(time)
            else:
                expect(opened[track], 'nothing ends at', event)
                slices[track].append((opened[track].pop(), time))
        elif event['ph'] == 'X':
            expect(event['name'], 'no name is in', event)
            expect(event['dur'] >= 0, 'a negative length has', event)
            start = nanoseconds(event)
            slices[track].append((start, start + nanoseconds(event, 'dur')))
    expect(not any(opened.values()), 'slices are open at the end:', {k: v for k, v in opened.items() if v})
    return slices


def checkNesting(slices):
    for track, each in slices.items():
        outer = []
        for start, end in sorted(each, key=lambda pair: (pair[0], -pair[1])):
            while outer and outer[-1] <= start:
                outer.pop()
            expect(not outer or end <= outer[-1], f'slices of track {track} overlap at {start}')
            outer.append(end)


def checkFlows(events, slices):
    starts, ends = {}, {}
    for event in events:
        if event['ph'] in 'sf':
            side = starts if event['ph'] == 's' else ends
            expect(event['id'] not in side, 'a second', event)
            side[event['id']] = event
    expect(starts.keys() == ends.keys(), 'flows have one end only:', starts.keys() ^ ends.keys())
    ordered = {track: sorted(each) for track, each in slices.items()}
    for identity, end in ends.items():
        expect(nanoseconds(starts[identity]) <= nanoseconds(end), 'it ends before its start:', end)
        expect(end.get('bp') == 'e', 'it does not end at the slice around it:', end)
        for event in starts[identity], end:
            expect(isWithin(nanoseconds(event), ordered.get((event['pid'], event['tid']), [])), 'no slice is around', event)
    return len(ends)


def isWithin(time, ordered):
    """Whether a slice is around the time. Few are long: those that start just before it are looked at first."""
    import bisect
    at = bisect.bisect_right(ordered, (time, float('inf')))
    return any(ordered[i][1] >= time for i in range(at - 1, -1, -1))


def checkNames(events):
    names = collections.defaultdict(list)
    for event in events:
        if event['ph'] == 'M' and event['name'] in ('process_name', 'thread_name'):
            key = event['pid'], event['tid'] if event['name'] == 'thread_name' else None
            names[key].append(event['args']['name'])
    for key, given in names.items():
        expect(len(given) == 1 and given[0], f'the names of {key} are {given}')
    for event in events:
        if event['ph'] not in 'MC':
            expect((event['pid'], event['tid']) in names, 'no name has the track of', event)
        expect((event['pid'], None) in names, 'no name has the process of', event)
    return names


def check(text):
    """What is in the file, or Wrong."""
    trace = json.loads(text, parse_float=decimal.Decimal)
    events = trace['traceEvents']
    for event in events:
        expect(event['ph'] in 'BEXsfiCM' and type(event['pid']) is int and type(event['tid']) is int, 'unknown is', event)
        nanoseconds(event)
    for event in events:
        if event['ph'] == 'C':
            expect(all(type(each) is int and each >= 0 for each in event['args'].values()), 'no count is in', event)
        elif event['ph'] == 'i':
            expect(event['s'] in 'tpg' and event['name'], 'no instant is', event)
    names = checkNames(events)
    slices = slicesOf(events)
    checkNesting(slices)
    flows = checkFlows(events, slices)
    kinds = collections.Counter(event['ph'] for event in events)
    return {'processes': sum(tid is None for _, tid in names), 'tracks': sum(tid is not None for _, tid in names),
            'slices': sum(map(len, slices.values())), 'flows': flows, 'instants': kinds['i'], 'counters': kinds['C'],
            'lost': sum(event['ph'] == 'i' and event['cat'] == 'lost' for event in events)}


if __name__ == '__main__':
    with open(sys.argv[1], encoding='utf-8') as file:
        try:
            print(check(file.read()))
        except Wrong as wrong:
            sys.exit('wrong: ' + ' '.join(str(each) for each in wrong.args)[:1000])
