#!/usr/bin/env bash
# Lookups per second through libnxindex, beside `nxinspect lookup`, on a
# sample database indexed by the real nxindexer. Builds in build-bench-lookup/
# (Release, with -DNXINDEX_BUILD_BENCH=ON).
#   scripts/bench-lookup.sh [RECORDS_PER_FILE]   (3 source files; default 200000)
set -euo pipefail
cd "$(dirname "$0")/.."
records=${1:-200000}
build=build-bench-lookup
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DNXINDEX_BUILD_BENCH=ON -DNXI_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j 2 --target nxindex_bench nxindexer nxinspect ynsample >/dev/null
work=$(mktemp -d /tmp/nxindex-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
root="$work/install/root"
mkdir -p "$root/bin"
cp "$build/bin/nxindexer" "$build/bin/nxinspect" "$root/bin/"
"$build/bin/ynsample" "$root" --types wdx:1 --files 3 --records "$records" >/dev/null 2>&1
"$root/bin/nxindexer"  # pauses 50 ms before each bucket: about 13 s
"$build/bin/nxindex_bench" "$root/db/txhost" wdx00 10
key=$(od -An -tx4 -N4 -j0 "$root/db/txhost/hl/wdx00/hlp/80.hl" | tr -d ' ')
start=$(date +%s.%N)
for _ in $(seq 20); do "$root/bin/nxinspect" lookup wdx00 "$key" "$root" >/dev/null; done
end=$(date +%s.%N)
echo "nxinspect lookup (a process per key): $(echo "20 / ($end - $start)" | bc -l | cut -c1-6) lookups/s"
