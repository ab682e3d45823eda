#!/usr/bin/env bash
# The benchmark: builds nxindexer and the benchmark programs (opt-in, CMake
# option NXI_BUILD_BENCH, turned on here) in Release in build-bench/ and runs
# nxbench, which measures the indexer (with its pause before every bucket
# removed) against a baseline program that does the least work the same output
# needs. The report is printed and kept in build-bench/bench-report.md.
# Arguments go to nxbench (--rounds N, --no-sync, --no-strace, --quick,
# --work DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

# strace counts the system calls; the benchmark runs without it when it can't
# be installed.
if ! command -v strace >/dev/null 2>&1; then
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && command -v sudo >/dev/null 2>&1 && sudo_cmd=(sudo)
  if [ "$(id -u)" -eq 0 ] || [ ${#sudo_cmd[@]} -gt 0 ]; then
    echo "bench: installing strace"
    { "${sudo_cmd[@]}" apt-get update -qq &&
      "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends strace >/dev/null; } ||
      echo "bench: strace could not be installed; no system call counts"
  fi
fi

build_dir=build-bench
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DNXI_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" --target nxbench

echo "== machine: $(nproc) CPUs, kernel $(uname -r)"
lscpu | head -n 15 || true
echo "== $build_dir/bin/nxbench $*"
status=0
"$build_dir/bin/nxbench" "$@" | tee "$build_dir/bench-report.md" || status=$?
echo "== report kept in $build_dir/bench-report.md"
exit "$status"
