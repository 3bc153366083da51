#!/usr/bin/env bash
# A daemon's statistics in a shell. Usage: test/observe/stats_server.sh PATH_OF_CACHED
set -euo pipefail
command -v socat >/dev/null || { echo "skipped: there is no socat"; exit 77; }
cached=$1
scratch=$(mktemp -d)
daemon=
trap '[ -z "$daemon" ] || kill "$daemon" 2>/dev/null || true; rm -rf "$scratch"' EXIT
fail() { echo "stats_server: $*" >&2; exit 1; }

for backend in host libevent; do
  socket=$scratch/$backend
  "$cached" --listen "$scratch/cache" --backend "$backend" --stats "$socket" >"$socket.log" &
  daemon=$!
  for _ in {1..500}; do
    ! grep -qs listening "$socket.log" || break
    sleep 0.02
  done
  [ "$(stat -c %a "$socket")" = 600 ] || fail "others may ask, too"

  ask() { printf '%s\n' "$@" | socat -t 10 - "UNIX-CONNECT:$socket"; }
  [[ $(ask hello) == '{"document":"hello","version":1,"process":{"name":"cached","pid":'$daemon,* ]] || fail "hello: $(ask hello)"
  [ "$(ask pending | grep -c '"descriptor.*reads"')" = 1 ] || fail "pending: $(ask pending)"
  [[ $(ask monitor) == *'"name":"sweep"'*'"tasks_counted":'*'}' ]] || fail "monitor: $(ask monitor)"
  [ "$(ask 'trace Nobody/5' '' trace | grep -c '"trace":"Nobody/5"')" = 2 ] || fail trace
  [[ $(ask report) == '{"schedulers":{"cached":'*'}}' ]] || fail "report: $(ask report)"
  [[ $(ask "report text") == *sweep* ]] || fail "report text: $(ask report text)"
  [[ $(ask reprot hello) == 'error: there is no request "reprot"'*'{"document":"hello"'* ]] || fail "an error ends it"
  # Half a line, a client that goes amid an answer, and one that takes its time.
  [[ $(printf 'hel' | socat -t 10 - "UNIX-CONNECT:$socket") == 'error: there is no request "hel"'* ]] || fail "half a line"
  ask "history capacity=5000" report report | head -c 10 >/dev/null || true
  slowly=$(ask report report | { sleep 0.2; wc -c; })
  [ "$slowly" -gt 2000 ] || fail "slowly: $slowly bytes"
  kill -TERM "$daemon"
  wait "$daemon" || fail "ended with status $?"
  daemon=
  [ ! -e "$socket" ] || fail "the socket stays"
done
