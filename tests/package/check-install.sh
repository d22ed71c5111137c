#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then builds and runs the
# consumers against it through the CMake package and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=consumers.sh
source "$source_dir/tests/package/consumers.sh"

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
hv_check_consumers "$source_dir" "$work/prefix" "$work"
echo "installed package and pkg-config file both work"
