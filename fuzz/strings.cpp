// Strings from outside, cut, joined, replaced and quoted, beside the plainest way to do it.

#include <algorithm>
#include <cctype>
#include <vector>

#include "fuzz.h"
#include "vexo_utils/string_utils.h"

namespace {

using namespace vexo::utils;
using Strings = std::vector<std::string>;

Strings piecesOf(const std::string& s, const std::string& delimiter) {
  if (delimiter.empty()) return {s};
  Strings pieces;
  std::size_t from = 0;
  for (std::size_t at; (at = s.find(delimiter, from)) != std::string::npos;) {
    pieces.push_back(s.substr(from, at - from));
    from = at + delimiter.size();
  }
  pieces.push_back(s.substr(from));
  return pieces;
}

Strings tokensOf(const std::string& s, const std::string& delimiters, bool skipEmpty) {
  Strings tokens{""};
  for (const char c : s) {
    if (delimiters.find(c) == std::string::npos) {
      tokens.back() += c;
    } else {
      tokens.emplace_back();
    }
  }
  if (skipEmpty) tokens.erase(std::remove(tokens.begin(), tokens.end(), ""), tokens.end());
  return tokens;
}

// What sh(1) makes of words in single quotes and characters behind a backslash.
std::string unquoted(const std::string& word) {
  std::string text;
  bool quoted = false;
  for (std::size_t at = 0; at < word.size(); ++at) {
    if (word[at] == '\'') {
      quoted = !quoted;
    } else {
      if (!quoted) MUST(word[at++] == '\\' && at < word.size());
      text += word[at];
    }
  }
  MUST(!quoted);
  return text;
}

std::string trimmed(const std::string& s) {
  const std::size_t first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

FUZZ_TARGET(strings) {
  const std::string delimiter = input.part();
  const std::string other = input.part();
  const std::string text = input.rest();

  Strings pieces{"before"};
  split(text, delimiter, pieces);
  MUST(pieces == piecesOf(text, delimiter));
  std::string joined = "before";
  join(joined, delimiter, pieces);
  MUST(joined == text);

  std::string replaced = text;
  replaceAll(replaced, delimiter, other);
  join(joined, other, pieces);
  MUST(replaced == joined);

  for (const bool skipEmpty : {false, true}) {
    Strings tokens;
    tokenize(text, tokens, delimiter, skipEmpty);
    MUST(tokens == tokensOf(text, delimiter, skipEmpty));
  }

  MUST(startsWith(text, delimiter) == (text.substr(0, delimiter.size()) == delimiter));
  MUST(startsWith(text + delimiter, text) && endsWith(text + delimiter, delimiter));
  MUST(endsWith(text, other) ==
       (text.size() >= other.size() && text.substr(text.size() - other.size()) == other));

  std::string left = text;
  std::string both = text;
  MUST(rTrim(lTrim(left)) == trimmed(text) && trim(both) == trimmed(text));
  MUST(lowerCase(upperCase(text)) == lowerCase(text) && lowerCase(text).size() == text.size());
  MUST(unquoted(escapeShellArg(text)) == text.c_str());
}
