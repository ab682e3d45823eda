#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz/ (clang, AddressSanitizer with
# LeakSanitizer, UndefinedBehaviorSanitizer) and runs each one for a bounded
# time on a copy of its seed corpus in fuzz/corpus/, so that the checkout is
# never modified. Prints the executions of every target and every finding.
#   scripts/fuzz.sh [SECONDS [TARGET...]]
#     SECONDS  fuzzing time per target (default 60)
#     TARGET   bucket_range, progress_file, ini_int, bucket_write, index_bucket
#              (default all)
#   NXI_FUZZ_JOBS  targets run side by side (default: the number of CPUs)
# Exit status 1 when any target crashed, leaked, timed out or ran out of
# memory; its reproducer is copied to build-fuzz/fuzz-findings/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --fuzz

seconds=${1:-60}
if [ $# -gt 0 ]; then shift; fi
case "$seconds" in
  '' | *[!0-9]*) echo "usage: $0 [SECONDS [TARGET...]]" >&2; exit 2 ;;
esac
all_targets=(bucket_range progress_file ini_int bucket_write index_bucket)
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=("${all_targets[@]}")
for target in "${targets[@]}"; do
  [ -d "fuzz/corpus/$target" ] || { echo "fuzz: unknown target $target" >&2; exit 2; }
done
jobs=${NXI_FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}

# Inputs larger than a few source file heads add time, not coverage.
max_len() {
  case "$1" in
    bucket_range | bucket_write | index_bucket) echo 8192 ;;
    *) echo 4096 ;;
  esac
}
dictionary() {
  case "$1" in
    progress_file | ini_int) echo "-dict=fuzz/ini.dict" ;;
  esac
}

build_dir=build-fuzz
cache="$build_dir/CMakeCache.txt"
if [ -f "$cache" ] && ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++' "$cache"; then
  rm -rf "$cache" "$build_dir/CMakeFiles"  # configured with another compiler
fi
CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DNXI_BUILD_FUZZ=ON -DNXI_BUILD_TESTS=OFF -DNXI_WERROR=ON >/dev/null
cmake --build "$build_dir" --target nxfuzz_all -j "$jobs"

# Everything a run writes stays in RAM when /dev/shm is there.
scratch_parent=/dev/shm
[ -d "$scratch_parent" ] && [ -w "$scratch_parent" ] || scratch_parent=${TMPDIR:-/tmp}
work=$(mktemp -d "$scratch_parent/nxfuzz-run-XXXXXX")
trap 'rm -rf "$work"' EXIT
findings="$build_dir/fuzz-findings"
rm -rf "$findings"

symbolizer=$(command -v llvm-symbolizer || true)
[ -n "$symbolizer" ] || [ ! -x /usr/lib/llvm-14/bin/llvm-symbolizer ] || symbolizer=/usr/lib/llvm-14/bin/llvm-symbolizer
export ASAN_OPTIONS="${ASAN_OPTIONS:-}${ASAN_OPTIONS:+:}detect_leaks=1"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-}${UBSAN_OPTIONS:+:}print_stacktrace=1:halt_on_error=1"
[ -n "$symbolizer" ] && export ASAN_SYMBOLIZER_PATH="$symbolizer"

run_target() {
  local target=$1
  mkdir -p "$work/corpus" "$work/artifacts/$target" "$work/root/$target"
  cp -r "fuzz/corpus/$target" "$work/corpus/$target"
  local status=0
  # libFuzzer stops itself after SECONDS; the outer limit only catches a hang
  # outside its reach.
  NXI_FUZZ_ROOT="$work/root/$target" timeout -k 10 $((seconds + 120)) \
    "$build_dir/bin/nxfuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len="$(max_len "$target")" $(dictionary "$target") -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/$target/" "$work/corpus/$target" >"$work/$target.log" 2>&1 || status=$?
  echo "$status" >"$work/$target.status"
}

echo "fuzz: ${#targets[@]} target(s), ${seconds} s each, $jobs at a time"
for target in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
    wait -n || true
  done
  run_target "$target" &
done
wait

failed=0
for target in "${targets[@]}"; do
  log="$work/$target.log"
  status=$(cat "$work/$target.status")
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  seeds=$(find "fuzz/corpus/$target" -type f | wc -l)
  corpus=$(find "$work/corpus/$target" -type f | wc -l)
  artifacts=$(find "$work/artifacts/$target" -type f | wc -l)
  printf 'fuzz: %-14s %10s executions, corpus %d -> %d inputs, %d finding(s), exit status %s\n' \
    "$target" "${executions:-?}" "$seeds" "$corpus" "$artifacts" "$status"
  if [ "$status" -ne 0 ] || [ "$artifacts" -ne 0 ]; then
    failed=1
    echo "----- nxfuzz_$target: end of its output -----"
    tail -n 80 "$log"
    echo "-----"
    mkdir -p "$findings/$target"
    cp "$log" "$findings/$target/"
    for artifact in "$work/artifacts/$target"/*; do
      [ -f "$artifact" ] || continue
      cp "$artifact" "$findings/$target/"
      echo "fuzz: reproducer $findings/$target/$(basename "$artifact")"
      echo "fuzz:   run it:  NXI_FUZZ_LOG=1 $build_dir/bin/nxfuzz_$target $findings/$target/$(basename "$artifact")"
      echo "fuzz:   keep it: copy it into fuzz/corpus/$target/ once the fault is fixed"
    done
  fi
done
exit "$failed"
