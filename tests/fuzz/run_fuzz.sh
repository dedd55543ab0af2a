#!/usr/bin/env bash
# Runs every fuzz target of BUILD_DIR for SECONDS over its stored corpus
# (tests/fuzz/corpus/<target>), JOBS targets at a time, and fails on any
# finding. New inputs go to BUILD_DIR/fuzz-runs/<target>/corpus, findings
# next to it; the stored corpus is never changed.
#   run_fuzz.sh BUILD_DIR [SECONDS] [JOBS] [TARGET...]
set -uo pipefail
build=$1
seconds=${2:-60}
jobs=${3:-2}
shift $(( $# < 3 ? $# : 3 ))
here=$(cd "$(dirname "$0")" && pwd)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(scanner udp decoder playback client_commands control http)

run_one() {
  local t=$1 out="$build/fuzz-runs/$1"
  rm -rf "$out" && mkdir -p "$out/corpus"
  # A slow input (a hang) counts as a finding as well.
  "$build/bin/fuzz_$t" -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
    -artifact_prefix="$out/" "$out/corpus" "$here/corpus/$t" >"$out/log" 2>&1
  echo $? >"$out/status"
}

running=0
for t in "${targets[@]}"; do
  run_one "$t" &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then
    wait -n
    running=$((running - 1))
  fi
done
wait

passed=0
failed=0
for t in "${targets[@]}"; do
  out="$build/fuzz-runs/$t"
  status=$(cat "$out/status" 2>/dev/null || echo missing)
  runs=$(sed -n 's/^stat::number_of_executed_units: //p' "$out/log" | tail -1)
  cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$out/log" | tail -1)
  findings=$(find "$out" -maxdepth 1 -name 'crash-*' -o -maxdepth 1 -name 'leak-*' \
    -o -maxdepth 1 -name 'timeout-*' -o -maxdepth 1 -name 'oom-*' | wc -l)
  echo "fuzz_$t: ${seconds} s, ${runs:-?} runs, ${cov:-no coverage line}, findings ${findings}"
  if [ "$status" = 0 ] && [ "$findings" = 0 ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "---- fuzz_$t exited with $status; the end of its log ($out/log):"
    tail -40 "$out/log"
  fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" = 0 ]
