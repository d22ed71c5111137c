#!/usr/bin/env bash
# Builds the Debian packages, checks their file lists and Depends, unpacks
# both into a scratch root (never into the machine's /usr) and builds and
# runs the consumers against the unpacked tree.
set -euo pipefail
source_dir=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=consumers.sh
source "$source_dir/tests/package/consumers.sh"

bash "$source_dir/tools/make-debs.sh" "$work/build" >/dev/null
runtime=$(ls "$work"/build/libhvutil1_*.deb)
dev=$(ls "$work"/build/libhvutil-dev_*.deb)
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir="usr/lib/$triplet"

fail() { echo "$*" >&2; exit 1; }
# Under pipefail a reader that stops early (grep -q, head, awk's exit) can
# fail the whole pipeline with SIGPIPE at random, so output is always taken
# whole into a variable before it is searched.

# Whether the Depends field $2 names package $1 (any version constraint).
depends_on() {
  local names
  names=$(tr ',' '\n' <<<"$2" | awk '{print $1}')
  grep -qxF "$1" <<<"$names"
}
files_of() { dpkg-deb -c "$1" | awk '{print $6}' | grep -v '/$' | sed 's|^\./||' | sort; }

# Runtime: exactly the two libraries and their SONAME links.
expected_runtime=$(printf '%s\n' "$libdir/libHvUtil.so.1" "$libdir/libHvUtil.so.1.0.0" \
                                 "$libdir/libVelmora.so.1" "$libdir/libVelmora.so.1.0.0" | sort)
[ "$(files_of "$runtime")" = "$expected_runtime" ] || fail "runtime files: $(files_of "$runtime")"

# Development: every installed header, the .so links, the CMake package, hvutil.pc.
dev_files=$(files_of "$dev")
for header in "$source_dir"/HvUtil/*.h "$source_dir"/Velmora/*.h; do
  name="usr/include/$(basename "$(dirname "$header")")/$(basename "$header")"
  grep -qx "$name" <<<"$dev_files" || fail "dev package lacks $name"
done
for file in "$libdir/libHvUtil.so" "$libdir/libVelmora.so" "$libdir/pkgconfig/hvutil.pc" \
            "$libdir/cmake/HvUtil/HvUtilConfig.cmake" "$libdir/cmake/HvUtil/HvUtilConfigVersion.cmake" \
            "$libdir/cmake/HvUtil/HvUtilTargets.cmake"; do
  grep -qx "$file" <<<"$dev_files" || fail "dev package lacks $file"
done
dev_libraries=$(grep -v '^usr/include/' <<<"$dev_files")
if grep -q '\.so\.' <<<"$dev_libraries"; then
  fail "dev package carries versioned libraries"
fi

mkdir -p "$work/root"
dpkg-deb -x "$runtime" "$work/root"
dpkg-deb -x "$dev" "$work/root"

# Depends: the package of every shared library that the two libraries name as
# NEEDED (ACE, log4cplus and c-ares among them), as dpkg knows it here.
# With a merged /usr, dpkg may know a library under /lib or under /usr/lib.
owner() {
  local real candidate found
  real=$(readlink -f "$1")
  for candidate in "$real" "${real#/usr}" "/usr$real"; do
    found=$(dpkg-query -S "$candidate" 2>/dev/null) || continue
    found=${found%%$'\n'*}
    echo "${found%%:*}"
    return 0
  done
  return 1
}
runtime_depends=$(dpkg-deb -f "$runtime" Depends)
needed=$(readelf -d "$work/root/$libdir"/lib*.so.1.0.0 | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort -u)
for soname in libACE libcares liblog4cplus; do
  grep -q "^$soname" <<<"$needed" || fail "the libraries do not need $soname: $needed"
done
for soname in $needed; do
  [ "$soname" = libVelmora.so.1 ] && continue
  path=$(ldconfig -p | awk -v so="$soname" '$1 == so && !found {print $NF; found = 1}')
  [ -n "$path" ] || fail "$soname not found by ldconfig"
  package=$(owner "$path")
  depends_on "$package" "$runtime_depends" || fail "runtime Depends lacks $package ($soname): $runtime_depends"
done
dev_depends=$(dpkg-deb -f "$dev" Depends)
version=$(dpkg-deb -f "$runtime" Version)
dev_entries=$(tr ',' '\n' <<<"$dev_depends" | sed 's/^ *//')
grep -qxF "libhvutil1 (= $version)" <<<"$dev_entries" || fail "dev Depends lacks libhvutil1 (= $version): $dev_depends"
for package in "$(owner "$(pkg-config --variable=pcfiledir ACE)/ACE.pc")" \
               "$(owner "$(pkg-config --variable=pcfiledir log4cplus)/log4cplus.pc")"; do
  depends_on "$package" "$dev_depends" || fail "dev Depends lacks $package: $dev_depends"
done

hv_check_consumers "$source_dir" "$work/root/usr" "$work"
echo "Debian packages: files and Depends as expected; consumers build and run from the unpacked tree"
echo "  $(basename "$runtime"): $runtime_depends"
echo "  $(basename "$dev"): $dev_depends"
