#!/usr/bin/env bash
# Installs a build, moves the tree, and builds and runs a client against it by find_package, by
# pkg-config and, from the source, by add_subdirectory. Every installed header compiles.
# Usage: test/install/run.sh BUILD_DIR
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build=$(realpath "$1")
source=$(realpath "$(dirname "$0")/../..")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

say() { printf -- '-- %s\n' "$*"; }
fail() { echo "install: $*" >&2; exit 1; }
runs() { # program
  [ "$("$1")" = "consumer: done" ] || fail "the client says something else"
}

say "install, and move"
cmake --install "$build" --prefix "$scratch/first" >/dev/null
mv "$scratch/first" "$scratch/moved"
! grep -rI "$scratch/first\|$source" "$scratch/moved" || fail "the tree knows where it was made"
"$source/.ci/hardened" "$scratch/moved"
cp -r "$source/test/install/consumer" "$scratch/consumer"
cd "$scratch"

say "find_package"
cmake -S consumer -B by-find -DCMAKE_PREFIX_PATH="$scratch/moved" >/dev/null
cmake --build by-find >/dev/null
runs by-find/consumer
runs by-find/daemon
runs by-find/observe
! ldd by-find/consumer | grep -E "BreloDaemon|BreloObserve" || fail "who does not use the kit is linked with it"

say "pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$scratch/moved" -name ZelBrelo.pc)")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags --libs ZelBrelo)
g++ -std=c++17 consumer/main.cpp "${flags[@]}" -Wl,-rpath,"${PKG_CONFIG_PATH%/pkgconfig}" -o by-pkg-config
runs ./by-pkg-config
read -ra flags < <(pkg-config --cflags --libs BreloDaemon)
g++ -std=c++17 consumer/daemon.cpp "${flags[@]}" -Wl,-rpath,"${PKG_CONFIG_PATH%/pkgconfig}" -o daemon-by-pkg-config
runs ./daemon-by-pkg-config
read -ra flags < <(pkg-config --cflags --libs BreloObserve)
g++ -std=c++17 consumer/observe.cpp "${flags[@]}" -Wl,-rpath,"${PKG_CONFIG_PATH%/pkgconfig}" -o observe-by-pkg-config
runs ./observe-by-pkg-config
read -ra flags < <(pkg-config --static --cflags --libs ZelBrelo)
g++ -std=c++17 consumer/main.cpp "${flags[@]}" -o by-pkg-config-static ||
  fail "pkg-config --static names a library that is not there"

say "every header"
read -ra flags < <(pkg-config --cflags BreloObserve)
(cd moved/include && find . -name '*.h' -printf '#include "%P"\n') |
  g++ -std=c++17 -fsyntax-only -Wall -Wextra -Werror -Imoved/include "${flags[@]}" -x c++ -

say "add_subdirectory"
cmake -S consumer -B by-subdirectory -DBRELO_SOURCE="$source" >/dev/null
cmake --build by-subdirectory -j "$(nproc)" >/dev/null
runs by-subdirectory/consumer
runs by-subdirectory/daemon
runs by-subdirectory/observe
say "installed, moved and used in three ways"
