#!/usr/bin/env bash
# Builds the library and runs every test suite three times: a plain build, an
# AddressSanitizer + UndefinedBehaviorSanitizer build and a ThreadSanitizer
# build. Installs missing Debian packages first (run as root on Debian 12),
# among them the SIP peers of the interoperability tests (ctest label
# "interop": SIPp, sofia-sip, sipsak, Net::SIP, Kamailio).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake g++ make pkg-config python3 libace-dev liblog4cplus-dev libgtest-dev
          libbenchmark-dev libconcurrentqueue-dev libc-ares-dev dpkg-dev file
          sip-tester sofia-sip-bin sipsak libnet-sip-perl kamailio)
# shellcheck source=tools/install-packages.sh
. tools/install-packages.sh
install_packages "${packages[@]}"

jobs=$(nproc)
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_init_order=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

total=0
run_suite() {
  local name=$1 dir=$2 log
  shift 2
  echo "=== $name build ==="
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  log="$dir/ctest-output.txt"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" 2>&1 | tee "$log"
  # ctest's own exit status, not tee's.
  [ "${PIPESTATUS[0]}" -eq 0 ] || exit 1
  total=$((total + $(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n1)))
}

run_suite "plain" build/plain -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite "ASan+UBSan" build/asan -DCMAKE_BUILD_TYPE=Debug -DHV_SANITIZE_ADDRESS=ON
run_suite "TSan" build/tsan -DCMAKE_BUILD_TYPE=Debug -DHV_SANITIZE_THREAD=ON
echo "All suites passed (plain, ASan+UBSan, TSan)."
echo "ctest: $total passed, 0 failed"
