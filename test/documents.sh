#!/usr/bin/env bash
# Every piece of C++ in README.md and doc/ stands, but for its indentation, in a source that the
# build compiles. Every example has its page in the guide, every public header its place in the list.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
  echo "documents: $*" >&2
  exit 1
}
unindented() { sed 's/^ *//'; }

compiled=
for source in example/*.cpp doc/snippets/*.cpp doc/snippets/*/*.cpp; do
  [[ $source == doc/snippets/*/* ]] || grep -q "[ /]$(basename "$source")" example/CMakeLists.txt || fail "$source is not compiled"
  compiled+=$'\n'$(unindented <"$source")$'\n'
done
for source in example/*.cpp; do
  grep -q "\`$source\`" doc/guide.md || fail "$source has no page in doc/guide.md"
done

for header in Brelo/*.h BreloDaemon/*.h BreloObserve/*.h ZelBrelo/*.h host/*/*.h; do
  grep -q "\`${header#host/}\`" doc/headers.md || fail "$header is missing in doc/headers.md"
done

blocks=0
for document in README.md doc/*.md doc/*/*.md; do
  while IFS= read -r -d '' block; do
    blocks=$((blocks + 1))
    [[ $compiled == *$'\n'"$block"$'\n'* ]] || fail "$document has code that is not compiled:
$block"
  done < <(unindented <"$document" | awk '/^```$/ && code { printf "%s%c", text, 0; code = 0 }
    code { text = text (text == "" ? "" : "\n") $0 }
    /^```cpp$/ { code = 1; text = "" }')
done
[ "$blocks" -ge 10 ] || fail "only $blocks pieces of code found"
echo "$blocks pieces of code are compiled"
