#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ (clang, address and undefined-behaviour sanitizers) and runs
# each on its regression inputs, then for a bounded time from its seed corpus. A crash, leak,
# timeout, memory blow-up or sanitizer report fails the run; the input is left in
# <build dir>/artifacts/<target>/ and belongs in fuzz/regressions/<target>/ once fixed.
#
#   scripts/fuzz.sh [target...]      targets: command_intake config_reader statistics_reader
#   FUZZ_SECONDS (default 45 per target), TARVIK_FUZZ_BUILD_DIR (default <checkout>/build-fuzz)
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${TARVIK_FUZZ_BUILD_DIR:-$here/build-fuzz}
seconds=${FUZZ_SECONDS:-45}

# Inputs a little beyond what each reader is meant to take: the command limit is 4096 bytes,
# a configuration file is under 1 kB, a statistics file a few hundred bytes.
declare -A max_len=([command_intake]=4608 [config_reader]=4096 [statistics_reader]=2048)
targets=("$@")
((${#targets[@]})) || targets=(command_intake config_reader statistics_reader)

command -v clang++-14 >/dev/null || { echo "fuzz: clang++-14 is missing; scripts/setup.sh installs it" >&2; exit 1; }
cmake -S "$here" -B "$build" -DTARVIK_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j 2 >/dev/null

export ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

failed=()
summary=()
for target in "${targets[@]}"; do
  binary="$build/fuzz/fuzz_$target"
  corpus="$build/corpus/$target"
  artifacts="$build/artifacts/$target/"
  log="$build/fuzz_$target.log"
  mkdir -p "$corpus" "$artifacts"

  regressions=("$here/fuzz/regressions/$target"/*)
  if [[ -e "${regressions[0]}" ]] && ! "$binary" "${regressions[@]}" >"$log" 2>&1; then
    echo "fuzz: $target fails on a regression input:" >&2
    tail -n 40 "$log" >&2
    failed+=("$target")
    continue
  fi

  echo "fuzz: $target for ${seconds} s"
  # The first corpus directory receives what the run finds; the seeds in the checkout stay as they are.
  if ! "$binary" -max_total_time="$seconds" -timeout=3 -rss_limit_mb=1024 -max_len="${max_len[$target]}" \
      -dict="$here/fuzz/$target.dict" -artifact_prefix="$artifacts" -print_final_stats=1 \
      "$corpus" "$here/fuzz/corpus/$target" >"$log" 2>&1 \
      || grep -qE "runtime error:|ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)" "$log"; then
    echo "fuzz: $target FAILED (log $log, input in $artifacts):" >&2
    tail -n 60 "$log" >&2
    failed+=("$target")
    continue
  fi
  done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  cov=$(sed -E 's/.* cov: ([0-9]+).*/\1/' <<<"$done_line")
  ft=$(sed -E 's/.* ft: ([0-9]+).*/\1/' <<<"$done_line")
  corp=$(sed -E 's/.* corp: ([0-9]+).*/\1/' <<<"$done_line")
  summary+=("$(printf '%-18s %10s %9s %6s %6s %7s' "$target" "$runs" "$rate" "$cov" "$ft" "$corp")")
done

printf '%-18s %10s %9s %6s %6s %7s\n' target runs exec/s cov ft corpus
printf '%s\n' "${summary[@]}"
if ((${#failed[@]})); then
  echo "fuzz: FAILED: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: no crash, leak, timeout or sanitizer report"
