#!/usr/bin/env bash
# Runs one libFuzzer harness.
#   run_fuzz.sh check BINARY SOURCE_DIR NAME RUNS   replay corpus/NAME and crashers/NAME, then RUNS
#                                                   new inputs at a fixed seed (CTest)
#   run_fuzz.sh long BINARY SOURCE_DIR NAME SECONDS fuzz for SECONDS, keeping what it finds in
#                                                   build/fuzz (make fuzz), and print its figures
# New inputs go to a scratch folder (check) or build/fuzz/found/NAME (long), never into the
# source tree; a crash is written to the current folder as crash-*, leak-* or timeout-*.
set -euo pipefail
mode=$1 bin=$2 src=$3 name=$4 amount=$5
dirs=()
for d in "$src/corpus/$name" "$src/crashers/$name"; do
  [ -d "$d" ] && dirs+=("$d")
done
common=(-timeout=20 -rss_limit_mb=2048 -print_final_stats=1)

case $mode in
check)
  scratch=$(mktemp -d)
  trap 'rm -rf "$scratch"' EXIT
  exec "$bin" "${common[@]}" -seed=1 -runs="$amount" -artifact_prefix="$scratch/" \
    "$scratch" "${dirs[@]}"
  ;;
long)
  found="$(dirname "$bin")/found/$name"
  artifacts="$(dirname "$bin")/artifacts/$name/"
  mkdir -p "$found" "$artifacts"
  log="$(dirname "$bin")/$name.log"
  status=0
  "$bin" "${common[@]}" -max_total_time="$amount" -artifact_prefix="$artifacts" \
    "$found" "${dirs[@]}" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  printf '%-10s runs %-9s exec/s %-6s cov %-6s ft %-6s' "$name" "${runs:-?}" "${speed:-?}" "${cov:-?}" "${ft:-?}"
  if [ "$status" != 0 ]; then
    printf ' FAILED (status %s): see %s and %s\n' "$status" "$log" "$artifacts"
    exit 1
  fi
  printf '\n'
  ;;
*)
  echo "usage: run_fuzz.sh check|long BINARY SOURCE_DIR NAME RUNS|SECONDS" >&2
  exit 2
  ;;
esac
