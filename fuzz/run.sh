#!/usr/bin/env bash
# fuzz/run.sh TARGET SECONDS: runs a target in a private world. New inputs go to build/fuzz/new. One
# line tells how often it ran, how many inputs are new, and how many edges of the code all reach.
# fuzz/run.sh TARGET --keep: adds to fuzz/corpus the fewest of the new inputs that reach more.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
target=$1
corpus=fuzz/corpus/$target new=build/fuzz/new/$target log=build/fuzz/$target.log
program=(build/fuzz/tests/in_private_world "$PWD" "build/fuzz/fuzz/fuzz_$target")
mkdir -p "$new" build/fuzz/findings
count() { find "$1" -type f | wc -l; }

if [ "$2" = --keep ]; then
  before=$(count "$corpus")
  "${program[@]}" -set_cover_merge=1 -use_counters=0 "$corpus" "$new" >"$log" 2>&1 || { tail "$log"; exit 1; }
  printf '%-11s %5d inputs kept, %d more\n' "$target" "$(count "$corpus")" \
    $(($(count "$corpus") - before))
  exit
fi

before=$(count "$new")
options=("-max_total_time=$2" -max_len=4096 -timeout=10 -rss_limit_mb=1024 -print_final_stats=1
  "-artifact_prefix=build/fuzz/findings/$target.")
if ! "${program[@]}" "${options[@]}" "$new" "$corpus" >"$log" 2>&1; then
  grep -m 1 -e ': not so: ' -e 'runtime error: ' -e 'ERROR: ' "$log" || tail "$log"
  echo "$target: FAILED, see $log; again by" "${program[@]}" \
    "$(sed -n 's/.*Test unit written to //p' "$log")"
  exit 1
fi
printf '%-11s %9d runs %5d new inputs %6d edges\n' "$target" \
  "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" $(($(count "$new") - before)) \
  "$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)"
