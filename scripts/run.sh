#!/usr/bin/env bash
# Builds nxindexer and runs it on the build tree's own installation
# (build/db/txhost), then shows its log.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target nxindexer

echo "== running build/bin/nxindexer"
build/bin/nxindexer
echo "== exit status $?; build/logs/nxindexer.log:"
cat build/logs/nxindexer.log
