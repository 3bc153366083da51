#!/usr/bin/env bash
# The four faults of example/late show where doc/observe/late.md looks for them.
# Usage: test/observe/late.sh PATH_OF_LATE
set -euo pipefail
command -v socat >/dev/null || { echo "skipped: there is no socat"; exit 77; }
late=$1
scratch=$(mktemp -d)
"$late" --stats "$scratch/late" --stall --hog --leak --flood >"$scratch/log" &
daemon=$!
trap 'kill "$daemon" 2>/dev/null || true; rm -rf "$scratch"' EXIT

ask() { printf '%s\n' "$1" | socat -t 20 - "UNIX-CONNECT:$scratch/late" 2>/dev/null || true; }
# until_answer REGEX REQUEST: one comes that matches.
until_answer() {
  for _ in {1..100}; do
    answer=$(ask "$2")
    [[ $answer =~ $1 ]] && return
    sleep 0.1
  done
  echo "late: \"$2\" does not show '$1': ${answer:0:2000}" >&2
  exit 1
}
until_answer '"name":"reload".*"function":"Late::askTheDisk\(\)".*"function":"Late::reloadSettings' stalls
until_answer '"names":\[[^]]*"name":"index"' "monitor top=2 sort=violations_200"
until_answer '"name":"poll"[^}]*"runs":[0-9]{4,}' "monitor top=1 sort=runs"
until_answer '"name":"session"[^}]*"tasks":[0-9]{2,}' "monitor top=1 sort=tasks"
for _ in {1..100}; do
  ! grep -q "ms late" "$scratch/log" || break
  sleep 0.1
done
grep -q "ms late" "$scratch/log" || { echo "late: its tick is on time" >&2; exit 1; }
kill "$daemon"
wait "$daemon" || { echo "late: ended with status $?" >&2; exit 1; }
