#!/usr/bin/env bash
# Builds the Debian package for endpoints: a Release build of nxindexer and
# nxinspect in build-pkg/ (tests off), then cpack -G DEB. Prints the path of
# the .deb; install it with `apt install ./<that path>`.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

# cpack needs dpkg-shlibdeps (dpkg-dev) for the Depends field and file to
# tell the programs from the other files; installed quietly, once.
missing=()
for pkg in dpkg-dev file; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null 2>&1 || { echo "package: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
    sudo_cmd=(sudo)
  fi
  echo "package: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

build_dir=build-pkg
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DNXI_BUILD_TESTS=OFF >/dev/null
cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)"
# Only this run's package stays in the build directory.
rm -f "$build_dir"/*.deb
(cd "$build_dir" && cpack -G DEB >/dev/null)
deb=$(ls "$build_dir"/*.deb)
echo "package: $(pwd)/$deb"
