# Lists the places of the library that log, that no test has made log, and that unseen_messages.txt
# gives no reason for: awk -f unseen_messages.awk LINES unseen_messages.txt SOURCE...
# LINES has FILE:LINE wherever something was logged; the line is the last one of the statement.
FILENAME == ARGV[1] { seen[$0]; next }
FILENAME == ARGV[2] { if (match($0, /^[^ ]+ ".*": /)) reasons[substr($0, 1, RLENGTH - 2)] = 0; next }
/VEXO_LOG_[A-Z_]+\(/ && !/#define/ { statement = ""; first = FNR }
first { statement = statement $0 }
first && /;/ {
  for (line = first; line <= FNR && !((FILENAME ":" line) in seen); ++line);
  is_seen = line <= FNR
  first = 0
  sub(/.*VEXO_LOG_[A-Z_]+\( */, "", statement)
  gsub(/" +"/, "", statement)
  match(statement, /^"([^"\\]|\\.)*"/)
  file = FILENAME
  sub(/.*\//, "", file)
  place = file " " substr(statement, 1, RLENGTH)
  ++total
  if (is_seen) ++produced
  else if (place in reasons) ++reasons[place]
  else { print "never logged: " FILENAME ":" FNR ": " place; ++wrong }
}
END {
  for (place in reasons) if (!reasons[place]) { print "logged, and yet there is a reason why not: " place; ++wrong }
  printf "%d of %d places that log did so\n", produced, total
  exit wrong > 0
}
