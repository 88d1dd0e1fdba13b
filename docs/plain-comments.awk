# Doxygen's view of a header. Doxygen wants comments that are marked as documentation, and one for
# every name; the headers have plain ones, and one for each block of what belongs together:
#   - A comment becomes documentation: the one at the file's beginning is the file's, and that of
#     the classes with which it begins, as in "Scheduler: one epoll(7) event loop".
#   - A declaration that follows another one without a blank line has the same comment.
#   - "---- title ----" begins a group. What follows is the group's comment, and that of
#     declarations in it which have none.
#   - A comment behind a declaration is that declaration's.
# "Threads:   ..." becomes an item of a list; tables and indented lines stay as they are.

function escaped(text, pieces, n, i, out) {
  n = split(text, pieces, "`")
  for (i = 1; i <= n; i++) {
    if (i % 2) gsub(/[\\@%<>#&]/, "\\\\&", pieces[i])  # not what stands in backquotes
    out = out (i > 1 ? "`" : "") pieces[i]
  }
  sub(/^[0-9]+\./, "\\&", out)  # a number at the end of a sentence is no item of a list
  return out
}

function add(line) { block = block "///" (line == "" ? "" : " ") line "\n" }

function end_preformatted() {
  if (preformatted) add("~~~")
  preformatted = 0
}

function end_group() {
  if (in_group) print "///@}"
  in_group = 0
}

# One line of a comment, without its slashes.
function comment(text) {
  if (text ~ /^  / && (preformatted || after_empty || text ~ /[^ ]   +[^ ]/)) {
    if (!preformatted) add("~~~{.unparsed}")
    preformatted = 1
    add(text)
    return
  }
  end_preformatted()
  after_empty = text == ""
  text = escaped(text)
  if (text ~ /^([A-Z][A-Za-z ]*|fork(\(2\))?|`[a-z]+`): +[^ ]/ && index(text, ":") < 14 && NR > 1) {
    sub(/: */, ":** ", text)
    text = "- **" text
  }
  add(text)
}

function title(text) {
  end_preformatted()
  end_group()
  gsub(/^---- | *-*$/, "", text)
  group_title = escaped(text)
  block = ""
}

function end_comment() {
  end_preformatted()
  if (group_title != "") {
    printf "/// \\name %s\n%s///@{\n", group_title, block
    if (block ~ /^[\/ \n]*$/) block = "/// " group_title "\n"
    group_title = ""
    in_group = covered = 1
  } else {
    printf "%s", block  # of what comes next, which may have another one
    covered = 0
  }
}

# A function's body stays as it is, what is private goes.
raw_until != "" {
  if ($0 ~ raw_until) {
    raw_until = ""
    covered = 1
  }
  if (!private || raw_until == "") print
  next
}

/^ *\/\/( |$)/ {
  if (!commented) block = ""
  commented = 1
  text = $0
  sub(/^ *\/\/ ?/, "", text)
  if (text ~ /^---- .*[^-]/) title(text); else comment(text)
  next
}

/^#pragma once/ {
  end_preformatted()
  about_file = block
  printf "%s/// \\file\n", block
  commented = 0
  next
}

/^ *$/ {
  if (commented) end_comment(); else covered = in_group && covered
  commented = 0
  print
  next
}

/^(#|namespace|} +\/\/ namespace|};| (public|private|protected):)/ {
  if (commented) end_comment()
  if (!/^#/) end_group()
  commented = covered = depth = continued = 0
  private = /^ private:/
  if (private) raw_until = "^};"
  print
  next
}

{
  if (/^(class|struct) .*{$/) end_group()
  if (commented && group_title != "") end_comment()
  if (commented) end_preformatted()
  if (!continued && !commented && match($0, /^(class|struct) (VEXO_UTILS_API )?[A-Za-z]+/)) {
    name = substr($0, RSTART, RLENGTH)
    sub(/.* /, "", name)
    if (about_file ~ "^/// ([A-Za-z]+, )*" name "[,:]") printf "%s", about_file
  } else if (!continued && / = (delete|default);/ && !commented) {
    print "/// " (/delete/ ? "There is none." : "The usual one.")
  } else if (!continued && (commented || covered) && !/^ *(friend|})/) {
    printf "%s", block
  }
  commented = 0
  covered = 1
  code = $0
  sub(/ *\/\/.*/, "", code)
  depth += gsub(/\(/, "(", code) - gsub(/\)/, ")", code)
  continued = depth > 0 || code !~ /[;{},]$/
  if (code ~ /\).*{$/) raw_until = "^" substr(code, 1, match(code, /[^ ]/) - 1) "}"
  sub(/ \/\/ /, " ///< ")
  print
}

END { end_group() }
