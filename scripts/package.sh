#!/usr/bin/env bash
# Builds the Debian package for endpoints: a Release build of nxindexer and
# nxinspect in build-pkg/ (no tests, no benchmark), then cpack -G DEB. Prints
# the path of the .deb; install it with `apt install ./<that path>`.
set -euo pipefail
cd "$(dirname "$0")/.."
# install-deps.sh brings dpkg-dev (dpkg-shlibdeps fills Depends) and file,
# which cpack uses to tell the programs from the other files.
bash scripts/install-deps.sh

build_dir=build-pkg
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DNXI_BUILD_TESTS=OFF -DNXI_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)"
# Only this run's package stays in the build directory.
rm -f "$build_dir"/*.deb
(cd "$build_dir" && cpack -G DEB >/dev/null)
deb=$(ls "$build_dir"/*.deb)
echo "package: $(pwd)/$deb"
