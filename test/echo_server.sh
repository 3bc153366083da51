#!/usr/bin/env bash
# The echo server serves two clients at once, refuses a port that is taken, and ends at a signal.
# Usage: test/echo_server.sh PATH_OF_ECHO_SERVER
set -euo pipefail
server=$1
coproc daemon { exec "$server" 127.0.0.1:0; }
process=$daemon_PID
trap 'kill "$process" 2>/dev/null || true' EXIT
fail() { echo "echo_server: $*" >&2; exit 1; }
read -r -t 10 -u "${daemon[0]}" line
[[ $line =~ ^listening\ on\ 127\.0\.0\.1:([0-9]+)$ ]] || fail "says '$line'"
port=${BASH_REMATCH[1]}

exec 3<>"/dev/tcp/127.0.0.1/$port" 4<>"/dev/tcp/127.0.0.1/$port"
for text in one two three; do
  echo "$text" >&3
  echo "other $text" >&4
  read -r -t 10 -u 3 back && [ "$back" = "$text" ] || fail "'$back' came back"
  read -r -t 10 -u 4 back && [ "$back" = "other $text" ] || fail "'$back' came back"
done
! "$server" "127.0.0.1:$port" 2>/dev/null || fail "two serve one port"
kill -TERM "$process"
wait "$process" || fail "ended with status $?"
! read -r -t 10 -u 3 back || fail "'$back' came after the end"
