#!/usr/bin/env bash
# Builds the libFuzzer programs under fuzz/ with clang (build/fuzz) and runs
# them side by side, one per core, for SECONDS each (default 600). Each one
# starts from a copy of its corpus under build/fuzz/work/<target>, so the
# corpus in the repository only grows by what is merged into it by hand; a
# reproducer of any failure is left as fuzz/artifacts/<target>-<kind>-<hash>.
# Prints one line per target and exits 1 when any crashed, leaked, hit
# undefined behaviour or timed out. Installs missing Debian packages first
# (run as root on Debian 12). RUNS=N stops a target after N executions
# (for example RUNS=10000000), whichever comes first. TARGETS="A B" runs only
# those targets; when there are fewer targets than cores, each target gets
# several libFuzzer workers on one shared corpus, which split RUNS between
# them and whose executions are added up.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-600}
# RUNS: stop a target after that many executions (-1: only the time ends it).
runs=${RUNS:--1}
build=$root/build/fuzz

# clang's -fsanitize=fuzzer links libclang_rt.fuzzer-x86_64.a, which Debian 12
# ships in libclang-rt-14-dev.
packages=(clang libfuzzer-14-dev libclang-rt-14-dev cmake pkg-config libace-dev liblog4cplus-dev libgtest-dev)
# shellcheck source=tools/install-packages.sh
. tools/install-packages.sh
install_packages "${packages[@]}"

launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=true
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
      -DCMAKE_CXX_COMPILER=clang++ -DHV_BUILD_FUZZERS=ON "${launcher[@]}" >/dev/null
# The slowest first, so that they get a core from the start; the longest
# input each may grow to, which keeps its rate steady over a long run (a date
# is 29 characters, a SIP request a few hundred bytes to a kilobyte).
all_targets=(HvFramingFuzz HvSipRequestFuzz HvStreamTokenizerFuzz HvParametersFuzz HvEncodingFuzz HvDateFuzz)
read -r -a targets <<<"${TARGETS:-${all_targets[*]}}"
declare -A max_len=([HvFramingFuzz]=2048 [HvSipRequestFuzz]=2048 [HvStreamTokenizerFuzz]=512
                    [HvParametersFuzz]=512 [HvEncodingFuzz]=512 [HvDateFuzz]=64)
for source in fuzz/*Fuzz.cpp; do
  [[ -v max_len[$(basename "$source" .cpp)] ]] || { echo "$source: no entry in tools/fuzz.sh" >&2; exit 2; }
done
for target in "${targets[@]}"; do
  [[ -v max_len[$target] ]] || { echo "TARGETS: no fuzz target $target" >&2; exit 2; }
done
jobs=$(nproc)
workers=$(( jobs > ${#targets[@]} ? jobs / ${#targets[@]} : 1 ))
[ "$runs" = -1 ] || runs=$(( (runs + workers - 1) / workers ))
cmake --build "$build" -j"$jobs" --target "${targets[@]}" >/dev/null

mkdir -p fuzz/artifacts
# Leaks and UB fail the run like crashes; UB reports abort (the library is
# built with -fno-sanitize-recover=undefined).
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# Each worker logs to fuzz-<n>.log in the target's work directory (that is
# where libFuzzer puts the logs of its jobs, so a single worker does too).
run_target() {
  local target=$1 work=$build/work/$1
  rm -rf "$work"
  mkdir -p "$work/corpus"
  cp fuzz/corpus/"$target"/* "$work/corpus/"
  ls "$work/corpus" | wc -l >"$work/seeds"
  local options=(-max_total_time="$seconds" -runs="$runs" -max_len="$2" -timeout=25 -print_final_stats=1
                 -artifact_prefix="$root/fuzz/artifacts/$target-")
  [ -f fuzz/dict/"$target".dict ] && options+=(-dict="$root/fuzz/dict/$target.dict")
  set +e
  if [ "$workers" -gt 1 ]; then
    (cd "$work" && "$build/fuzz/$target" corpus -jobs="$workers" -workers="$workers" "${options[@]}" \
        >"$work/jobs.log" 2>&1)
  else
    "$build/fuzz/$target" "$work/corpus" "${options[@]}" >"$work/fuzz-0.log" 2>&1
  fi
  echo $? >"$work/rc"
}
export -f run_target
export build root seconds runs workers
for target in "${targets[@]}"; do
  echo "$target ${max_len[$target]}"
done | xargs -P "$jobs" -L1 bash -c 'run_target "$0" "$1"'

failed=0
shopt -s nullglob
printf '%-24s %12s %10s %8s %10s  %s\n' target executions exec/s edges new-files result
for target in "${targets[@]}"; do
  work=$build/work/$target
  logs=("$work"/fuzz-*.log)
  # No log at all: the checks below must still read a file, not standard input.
  [ ${#logs[@]} -gt 0 ] || logs=(/dev/null)
  executions=0 rate=0 edges=0
  for log in "${logs[@]}"; do
    done_here=$(awk '/stat::number_of_executed_units/ {print $NF}' "$log" | tail -1)
    # A run that failed prints no final statistics: its last status line says
    # how far it got ("#<executions> ...").
    [ -n "$done_here" ] || done_here=$(grep -o '^#[0-9]*' "$log" | tail -1 | tr -d '#')
    executions=$(( executions + ${done_here:-0} ))
    rate=$(( rate + $(awk '/stat::average_exec_per_sec/ {print $NF}' "$log" | tail -1) + 0 ))
    covered=$(grep -o ' cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
    [ "${covered:-0}" -le "$edges" ] || edges=$covered
  done
  files=$(( $(ls "$work/corpus" | wc -l) - $(cat "$work/seeds") ))
  result=ok
  if grep -q 'ERROR: LeakSanitizer' "${logs[@]}"; then result=LEAK
  elif grep -q 'runtime error:' "${logs[@]}"; then result=UB
  elif grep -q 'ERROR: libFuzzer: timeout' "${logs[@]}"; then result=TIMEOUT
  elif grep -q -e 'ERROR: AddressSanitizer' -e 'ERROR: libFuzzer' -e 'invariant broken' "${logs[@]}"; then result=CRASH
  elif [ "$(cat "$work/rc")" != 0 ]; then result="FAILED(rc=$(cat "$work/rc"))"
  fi
  [ "$result" = ok ] || { failed=1; result="$result, see $work/fuzz-*.log"; }
  printf '%-24s %12s %10s %8s %10s  %s\n' "$target" "${executions:-?}" "${rate:-?}" "${edges:-?}" "$files" "$result"
done
exit $failed
