// Saves settings so that a power cut leaves the old file or the new one, whole, and reads them
// back.
//
// The order is what makes it safe: write beside the file, sync, rename over it, sync the folder.

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>

#include <vexo_utils/fileutils.h>

namespace {

using Settings = std::map<std::string, std::string>;

bool writeLines(NamedFStream& file, const Settings& settings) {
  for (const auto& [name, value] : settings) file << name << '=' << value << '\n';
  file.close();
  return file.good() && syncFile(file.name.c_str(), false, AT_FDCWD);
}

bool save(const std::string& path, const Settings& settings) {
  NamedFStream file;
  if (!openTmpFStream(path + ".XXXXXX", file)) return false;
  if (file.good() && writeLines(file, settings) &&
      renameFile(file.name.c_str(), path.c_str(), AT_FDCWD, AT_FDCWD)) {
    return syncDir(dirName(path).c_str(), AT_FDCWD);
  }
  rmRf(file.name, AT_FDCWD);
  return false;
}

bool load(const std::string& path, Settings& settings) {
  const auto take = [&](const std::string& line) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) settings[line.substr(0, equals)] = line.substr(equals + 1);
    return true;
  };
  return forEachLine(path, take, AT_FDCWD);
}

}  // namespace

int main() {
  const std::string folder = "/var/lib/camera";
  const std::string path = folder + "/settings.conf";
  if (!mkdirP(folder, true, 0755, AT_FDCWD)) return 1;
  if (!save(path, {{"title", "Front door"}, {"volume", "40"}})) return 1;
  if (!save(path, {{"title", "Back yard"}, {"volume", "40"}})) return 1;

  Settings settings;
  if (!load(path, settings)) return 1;
  for (const auto& [name, value] : settings) std::printf("%s: %s\n", name.c_str(), value.c_str());
  std::vector<std::string> names;
  if (!listFolder(folder, names, AT_FDCWD)) return 1;
  std::printf("files in %s: %zu\n", folder.c_str(), names.size());
  return names.size() == 1 ? 0 : 1;
}
