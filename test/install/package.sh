#!/usr/bin/env bash
# Installs the Debian packages of a folder, builds a client with them, and removes them again.
# Usage: test/install/package.sh FOLDER
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 FOLDER" >&2; exit 2; }
if [ "$(id -u)" -ne 0 ]; then
  echo "-- SKIPPED: only root can install packages"
  exit 0
fi
packages=("$(realpath "$1")"/*.deb)
read -ra names < <(for p in "${packages[@]}"; do dpkg-deb --field "$p" Package; done | xargs)
consumer=$(realpath "$(dirname "$0")/consumer")
scratch=$(mktemp -d)
remove() {
  dpkg --purge "${names[@]}" >/dev/null
  rm -rf "$scratch"
}

if command -v lintian >/dev/null; then
  echo "-- lintian, but for the licence and the address, which are the owner's to give"
  lintian --allow-root --fail-on error,warning --tag-display-limit 0 \
    --suppress-tags no-copyright-file,bogus-mail-host,bogus-mail-host-in-debian-changelog "${packages[@]}"
else
  echo "-- SKIPPED: lintian is not installed"
fi

echo "-- install ${names[*]}"
trap remove EXIT
dpkg --install "${packages[@]}" >/dev/null
build_and_run() { # source pkg-config-module
  local flags
  read -ra flags < <(pkg-config --cflags --libs "$2")
  g++ -std=c++17 "$consumer/$1" "${flags[@]}" -o "$scratch/client"
  [ "$("$scratch/client")" = "consumer: done" ] || { echo "package: the client says something else" >&2; exit 1; }
}
echo "-- build and run clients"
build_and_run main.cpp ZelBrelo
build_and_run daemon.cpp BreloDaemon
build_and_run observe.cpp BreloObserve
echo "-- make a project of the template, and test it"
"$(dirname "$consumer")/../../dev" new "$scratch/probe" probe >/dev/null
"$scratch/probe/dev" test >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
echo "-- remove"
trap - EXIT
remove
! pkg-config --exists ZelBrelo || { echo "package: something is left over" >&2; exit 1; }
echo "-- installed, used and removed"
