#!/bin/sh
# The program in README.md is example/hello.cpp, which the build compiles.
cd "$(dirname "$0")/.." || exit 1
sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d' | diff -u example/hello.cpp -
