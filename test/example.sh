#!/usr/bin/env bash
# example.sh REGEX PROGRAM...: the program must succeed, and its whole output match.
set -euo pipefail

pattern=$1
shift
output=$("$@") || { echo "$1 ended with status $?: $output" >&2; exit 1; }
echo "$output"
[[ $output =~ ^$pattern$ ]] || { echo "$1 should have printed: $pattern" >&2; exit 1; }
