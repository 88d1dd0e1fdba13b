// Files of a test, in its own world.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace vexo::test {

inline void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace vexo::test
