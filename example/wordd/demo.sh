#!/bin/bash
# demo.sh PATH_OF_WORDD: streams the licence texts to wordd from two clients at once, on each
# backend, checks the answers against coreutils, and fetches the daemon's statistics. Needs
# wordd-client beside wordd, and python3 to check the JSON document.
set -euo pipefail
export LC_ALL=C

wordd=${1:?usage: demo.sh PATH_OF_WORDD}
client=$(dirname "$wordd")/wordd-client
licences=/usr/share/common-licenses
scratch=$(mktemp -d)
daemon=

fail() {
  echo "demo failed: $*" >&2
  exit 1
}

cleanup() {
  [ -z "$daemon" ] || kill "$daemon" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT

top_ten() {
  tr 'A-Z' 'a-z' | tr -cs 'a-z' '\n' | sed '/^$/d' | sort | uniq -c |
    sort -k1,1nr -k2,2 | sed -n '1,10s/^ *//p'
}

# Sets `port` once the daemon has printed it.
start() {
  rm -f "$scratch/log"
  "$wordd" --backend="$1" --stats="$scratch/stats" >"$scratch/log" 2>"$scratch/errors" &
  daemon=$!
  for _ in {1..100}; do
    port=$(sed -n 's/^listening on 127\.0\.0\.1://p' "$scratch/log" 2>/dev/null || true)
    [ -z "$port" ] || return 0
    kill -0 "$daemon" 2>/dev/null || break
    sleep 0.05
  done
  fail "wordd does not listen: $(cat "$scratch/errors")"
}

check() {
  diff -u "$scratch/$1.expected" "$scratch/$1.answer" ||
    fail "the answer for $1 differs from what tr, sort and uniq say"
}

# Fetches the statistics, and prints the busiest tasks of the parsed document.
show_stats() {
  python3 - "$scratch/stats" <<'PYTHON' || fail "the statistics are no JSON document"
import json, socket, sys

client = socket.socket(socket.AF_UNIX)
client.connect(sys.argv[1])
client.sendall(b'report')
client.shutdown(socket.SHUT_WR)
text = b''.join(iter(lambda: client.recv(65536), b''))
scheduler = json.loads(text)['schedulers']['wordd']
print(f'Its statistics as JSON, {len(text)} bytes; the busiest tasks and groups:')
for task in scheduler['tasks']['tasks'][:3]:
    print(f"    {task['name']}: {task['runCount']} runs, {task['totalRunTime'] * 1000:.3f} ms")
PYTHON
}

# Asks for the text report and waits for its last table.
show_report() {
  kill -USR1 "$daemon"
  for _ in {1..100}; do
    ! grep -q '^TaskName (completed)' "$scratch/log" || break
    sleep 0.02
  done
  echo "Its report for people (without the legend):"
  grep -A12 '^TaskName' "$scratch/log" | cut -c1-100 | sed 's/^/    /'
}

compgen -G "$licences/*" >/dev/null || fail "there are no texts in $licences"
cat "$licences"/* >"$scratch/all"
cat "$licences"/GPL* "$licences"/LGPL* >"$scratch/some"
for text in all some; do top_ten <"$scratch/$text" >"$scratch/$text.expected"; done

for backend in host libevent; do
  start "$backend"
  echo "== wordd on the $backend backend, port $port: two clients at once"
  "$client" "$port" <"$scratch/all" >"$scratch/all.answer" &
  first=$!
  "$client" "$port" <"$scratch/some" >"$scratch/some.answer" || fail "the second client failed"
  wait "$first" || fail "the first client failed"
  check all
  check some
  echo "Both answers are those of tr, sort and uniq. For all $(wc -c <"$scratch/all") bytes:"
  sed 's/^/    /' "$scratch/all.answer"

  show_stats
  show_report
  kill -TERM "$daemon"
  wait "$daemon" || fail "wordd ended with status $?: $(cat "$scratch/errors")"
  daemon=
  grep -q 'scheduler events' "$scratch/log" || fail "wordd printed no event history"
  echo "What it did last, newest first:"
  grep -A10 'scheduler events' "$scratch/log" | tail -n +3 | sed 's/^/    /'
done
echo "demo passed: 2 backends, 4 answers, all exact"
