#!/usr/bin/env bash
# Builds the project and runs the whole test suite.
#   scripts/test.sh              build in build/, run the suite
#   scripts/test.sh --werror     the same with warnings as errors
#   scripts/test.sh --sanitize   build in build-sanitize/ with AddressSanitizer
#                                and UndefinedBehaviorSanitizer, run the suite
#   scripts/test.sh --bench      also build the benchmark (opt-in), so that its
#                                quick check, bench_quick, runs with the suite
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

build_dir=build
# The benchmark is named either way: a build directory keeps its options.
bench=OFF
cmake_args=(-DNXI_BUILD_TESTS=ON)
for arg in "$@"; do
  case "$arg" in
    --werror) cmake_args+=(-DNXI_WERROR=ON) ;;
    --sanitize) build_dir=build-sanitize; cmake_args+=(-DNXI_SANITIZE=ON -DNXI_WERROR=ON) ;;
    --bench) bench=ON ;;
    *) echo "usage: $0 [--werror] [--sanitize] [--bench]" >&2; exit 2 ;;
  esac
done
cmake_args+=(-DNXI_BUILD_BENCH=$bench)

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build_dir" "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir" -j "$jobs"
export ASAN_OPTIONS="${ASAN_OPTIONS:-}${ASAN_OPTIONS:+:}detect_leaks=1"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-}${UBSAN_OPTIONS:+:}print_stacktrace=1:halt_on_error=1"
ctest --test-dir "$build_dir" --output-on-failure -j "$jobs"
