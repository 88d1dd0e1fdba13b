# A table of the fault points that tests report: awk -f fault_points.awk LOG...
/^fault points: / { row[$3] = 1; tried[$3, $4] += $5; survived[$3, $4] += $6 }
END {
  format = "%-20s %8s %8s %12s %8s\n"
  printf format, "facility", "calls", "survived", "allocations", "survived"
  sort = "sort"
  for (name in row) {
    printf format, name, tried[name, "calls"], survived[name, "calls"], tried[name, "allocations"], survived[name, "allocations"] | sort
    total += tried[name, "calls"] + tried[name, "allocations"]
    good += survived[name, "calls"] + survived[name, "allocations"]
  }
  close(sort)
  printf "%d fault points, %d survived\n", total, good
  exit good < total
}
