// Paths as text.

#include <vector>

#include "fuzz.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/string_utils.h"

namespace {

std::string without(std::string path, const char* behind) {
  const std::size_t end = path.find_last_not_of(behind);
  return end == std::string::npos ? "" : path.substr(0, end + 1);
}

std::string normalized(const std::string& path) {
  std::vector<std::string> pieces;
  std::vector<std::string> kept;
  vexo::utils::tokenize(path, pieces, "/", true);
  for (const std::string& piece : pieces) {
    if (piece == "..") {
      if (!kept.empty()) kept.pop_back();
    } else if (piece != ".") {
      kept.push_back(piece);
    }
  }
  std::string whole;
  vexo::utils::join(whole, "/", kept);
  return "/" + whole;
}

}  // namespace

FUZZ_TARGET(paths) {
  const std::string path = input.rest().c_str();
  MUST(normalizePath("/" + path) == normalized(path));
  MUST(normalizePath(path) == (path.empty()     ? ""
                               : path[0] == '/' ? normalized(path)
                                                : normalized(normalizePath(".") + "/" + path)));

  const std::size_t slash = path.rfind('/');
  MUST(baseName(path) == (slash == std::string::npos ? path : path.substr(slash + 1)));
  if (slash == std::string::npos) {
    MUST(dirName(path) == ".");
  } else if (slash + 1 < path.size()) {
    MUST(dirName(path) == (slash == 0 ? "/" : path.substr(0, slash)));
    MUST(dirName(path + "/") == dirName(path));
  }

  const std::string folder = dirname_safe(path);
  const std::string name = basename_safe(path);
  const std::string plain = without(path, "/");
  if (plain.empty()) {
    MUST(path.empty() ? folder == "." : folder == "/" || folder == "//");  // the latter by glibc
    MUST(name == folder.substr(0, 1));
    return;
  }
  MUST(name == baseName(plain) && name.find('/') == std::string::npos);
  MUST(plain.find('/') == std::string::npos ? folder == "." : !folder.empty());
  MUST(normalizePath(folder + "/" + name) == normalizePath(path));
}
