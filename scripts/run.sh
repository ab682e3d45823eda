#!/usr/bin/env bash
# The main job: builds nxindexer and its tools, gives the build tree's own
# installation (build/db/txhost) a sample set of databases when it has none,
# indexes it with build/bin/nxindexer while showing its progress, then checks
# the index with nxinspect verify and shows it with nxinspect summary.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target nxindexer ynsample nxinspect

if [ ! -d build/db/txhost/idxnd ]; then
  echo "== creating a sample installation in build/: databases wdx00, wdx01, wfx00"
  build/bin/ynsample build --types wdx:2,wfx:1
fi

echo "== running build/bin/nxindexer (it pauses 50 ms before each of the 256 buckets:"
echo "   12.8 s per database by design); buckets passed, per database:"
log=build/logs/nxindexer.log
seen=0
[ -f "$log" ] && seen=$(wc -l <"$log")
# Key files written after this mark are the buckets this run wrote.
mark=$(mktemp -p build .run-mark.XXXXXX)
trap 'rm -f "$mark"' EXIT
build/bin/nxindexer &
indexer=$!
# Follow the log from where this run begins until the indexer ends: a
# database starts with "Indexing for DB - <db>", each bucket logs its name.
# (tail reports a failure when the log did not exist yet as it started.)
tail -n "+$((seen + 1))" -F --pid="$indexer" "$log" 2>/dev/null | awk '
  { sub(/\r$/, "") }
  /Indexing for DB - / { printf "   %s:", $NF; fflush(); next }
  / :: [0-9a-f][0-9a-f]$/ && /[13579bdf]f$/ {
    printf " %s", substr($0, length($0) - 1); if ($0 ~ /ff$/) printf "\n"; fflush()
  }' || true
status=0
wait "$indexer" || status=$?
echo "== nxindexer exit status $status; its log is $log"
echo "== buckets this run wrote, per database:"
for db in build/db/txhost/idxn/*/; do
  [ -d "$db" ] || continue
  written=$(find "$db" -maxdepth 1 -name '*.m' -newer "$mark" | wc -l)
  [ "$written" -eq 0 ] && written="nothing new"
  echo "   $(basename "$db"): $written"
done

echo "== build/bin/nxinspect verify"
verified=0
build/bin/nxinspect verify || verified=$?
echo "== build/bin/nxinspect summary"
build/bin/nxinspect summary
exit "$verified"
