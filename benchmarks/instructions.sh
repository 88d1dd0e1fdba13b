#!/bin/sh
# What a contestant executes for one event, as counts, which no busy machine can change:
# instructions in user space (callgrind), system calls and allocations (memcheck). Each is the
# difference of two runs by their difference in events, so start-up and set-up cancel out.
#
#   instructions.sh PROGRAM [ROW...]      PROGRAM is scheduler_bench
set -eu

program=$1
shift
[ $# -gt 0 ] || set -- dispatch/1-of-100 dispatch/8-of-100 dispatch/100-of-100 descriptor/add-remove
command -v valgrind >/dev/null || { echo "$0: needs valgrind" >&2; exit 2; }

log=$(mktemp)
trap 'rm -f "$log"' EXIT

# under TOOL ITERATIONS BENCHMARK: leaves valgrind's report in $log.
under() {
  # shellcheck disable=SC2086  # the tool and its options are several words
  if ! valgrind --log-file="$log" $1 "$program" --iterations="$2" --benchmark_repetitions=1 \
    --benchmark_filter="^$3(/iterations|\$)" >/dev/null 2>&1; then
    echo "$0: failed: $3 under valgrind $1" >&2
    exit 1
  fi
}

# counts ITERATIONS BENCHMARK: instructions, system calls, allocations of a whole run.
counts() {
  under "--tool=callgrind --callgrind-out-file=/dev/null" "$1" "$2"
  instructions=$(awk '/Collected/ { print $4 }' "$log")
  under "--tool=memcheck --trace-syscalls=yes" "$1" "$2"
  # Calls that may block have a second line for their end.
  calls=$(awk '/^SYSCALL/ && !/\.\.\. \[async\]/ { ++calls } END { print calls }' "$log")
  allocations=$(awk '/total heap usage/ { gsub(",", ""); print $5 }' "$log")
  echo "$instructions $calls $allocations"
}

printf 'For each event    %20s %14s %14s\n' instructions 'system calls' allocations
for row in "$@"; do
  case $row in
    dispatch/*) ready=${row#dispatch/} ready=${ready%%-of-*} ;;
    *) ready=1 ;;
  esac
  few=$((2000 / ready)) more=$((6000 / ready))
  echo "$row"
  for name in $("$program" --benchmark_list_tests --benchmark_filter="^$row/"); do
    contestant=${name#"$row/"}
    atFew=$(counts $few "$row/$contestant")
    atMore=$(counts $more "$row/$contestant")
    echo "$contestant $ready $few $atFew $more $atMore" |
      awk '{ events = $2 * ($7 - $3)
             printf "  %-16s %20.1f %14.2f %14.2f\n", $1, ($8 - $4) / events, ($9 - $5) / events,
                    ($10 - $6) / events }'
  done
done
