# Builds and runs the package consumers against an installed or unpacked
# tree. Sourced by check-install.sh and check-debs.sh.
#   hv_check_consumers SOURCE_DIR PREFIX WORK_DIR
# PREFIX holds include/ and the library directory (lib or lib/<triplet>).
# Every program runs without LD_LIBRARY_PATH: the run paths must suffice.

hv_check_consumers() {
  local source_dir=$1 prefix=$2 work=$3 libdir pcdir
  pcdir=$(dirname "$(find "$prefix" -name hvutil.pc -print -quit)")
  libdir=$(dirname "$pcdir")

  # Through the CMake package: a program using several classes, and one that
  # calls HvUtil alone and links with --as-needed.
  local consumer
  for consumer in consumer hvonly; do
    cmake -S "$source_dir/tests/package/$consumer" -B "$work/$consumer" \
          -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$work/$consumer" >/dev/null
  done

  # Through pkg-config, with a run path to the program's libraries only.
  local flags
  flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs hvutil)
  # shellcheck disable=SC2086
  c++ -std=c++17 "$source_dir/tests/package/consumer/main.cpp" -o "$work/consumer-pc" $flags \
      -Wl,-rpath,"$libdir"
  # shellcheck disable=SC2086
  c++ -std=c++17 "$source_dir/tests/package/hvonly/main.cpp" -o "$work/hvonly-pc" \
      -Wl,--as-needed $flags -Wl,-rpath,"$libdir"

  local program
  for program in consumer/consumer consumer-pc hvonly/hvonly hvonly-pc; do
    env -u LD_LIBRARY_PATH "$work/$program"
  done

  # The HvUtil-only programs really leave libVelmora to libHvUtil: neither
  # names it as a needed library of its own.
  local dynamic
  for program in hvonly/hvonly hvonly-pc; do
    # Taken whole first: grep -q stopping early would fail readelf with SIGPIPE.
    dynamic=$(readelf -d "$work/$program")
    if grep -q 'NEEDED.*libVelmora' <<<"$dynamic"; then
      echo "$program needs libVelmora itself; the check proves nothing" >&2
      return 1
    fi
  done
}
