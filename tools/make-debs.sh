#!/usr/bin/env bash
# Builds the Debian packages libhvutil1 and libhvutil-dev with CPack.
#
# Usage: tools/make-debs.sh [BUILD_DIR]
#   BUILD_DIR  build tree, relative to the repository root unless absolute
#              (default: build/deb); the .deb files are left in it.
# Installs what it needs (build dependencies, dpkg-dev, file) when missing.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-build/deb}"
[[ "$build" = /* ]] || build="$root/$build"

packages=(cmake g++ make pkg-config libace-dev liblog4cplus-dev libc-ares-dev dpkg-dev file)
# shellcheck source=tools/install-packages.sh
. "$root/tools/install-packages.sh"
install_packages "${packages[@]}"

# Each step's output goes to a log in the build tree, shown when the step fails.
step() {
  local log="$build/$1.log"
  shift
  "$@" >"$log" 2>&1 || { cat "$log" >&2; echo "make-debs: '$*' failed" >&2; exit 1; }
}
mkdir -p "$build"
step configure cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
     -DHV_BUILD_TESTS=OFF -DHV_BUILD_BENCHMARKS=OFF
step build cmake --build "$build" -j"$(nproc)"
rm -f "$build"/*.deb
step cpack cpack -G DEB -B "$build" --config "$build/CPackConfig.cmake"
ls "$build"/*.deb
