#!/bin/sh
# Every module on disk stands in the map of doc/architecture.md.
cd "$(dirname "$0")/.." || exit 1
status=0
for file in $(git ls-files "Brelo/*.h" "Brelo/*.cpp" "ZelBrelo/*.h" "BreloDaemon/*.h" "BreloObserve/*.h" "host/Zel/*.h"); do
  name=$(basename "$file")
  name=${name%.*}
  grep -q "[\`/]$name\`" doc/architecture.md || { echo "not in the map: $file"; status=1; }
done
exit $status
