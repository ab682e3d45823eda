#!/usr/bin/env bash
# Formats every C and C++ source of the tree with its .clang-format.
#   scripts/format.sh           rewrite the files in place
#   scripts/format.sh --check   change nothing; list what differs and exit 1 (CI)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --format
mapfile -t sources < <(git ls-files '*.c' '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
  clang-format --dry-run --Werror "${sources[@]}"
  echo "format: ${#sources[@]} files as .clang-format wants them"
else
  clang-format -i "${sources[@]}"
fi
