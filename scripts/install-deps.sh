#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need. Idempotent:
# does nothing (and says nothing) when every package is already there.
#   scripts/install-deps.sh          building and testing
#   scripts/install-deps.sh --fuzz   also clang, libFuzzer and llvm-symbolizer
#                                    (for the stacks of findings): scripts/fuzz.sh
#   scripts/install-deps.sh --format clang-format only: scripts/format.sh
set -euo pipefail

# strace serves the test that watches where a run creates files; dpkg-dev,
# file and lintian the package test.
packages=(build-essential cmake qtbase5-dev libgtest-dev dpkg-dev file lintian strace)
case "${1:-}" in
  --fuzz) packages+=(clang libclang-rt-14-dev llvm-14) ;;
  --format) packages=(clang-format) ;;
esac

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

# env passes the non-interactive front end through sudo, which drops the
# caller's environment.
as_root=(env DEBIAN_FRONTEND=noninteractive)
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null 2>&1 || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo "${as_root[@]}")
fi
echo "install-deps: installing ${missing[*]} (and what they need; the first set-up downloads about 165 MB)"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
