// The command lines of the kernel and of another process.

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

#include <sys/mount.h>

#include "fuzz.h"
#include "vexo_utils/process.h"
#include "vexo_utils/procfs.h"

namespace {

using Strings = std::vector<std::string>;

constexpr char kKernel[] = "/tmp/cmdline";
constexpr char kProcess[] = "/proc/1/cmdline";
constexpr char kName[] = "camerad";

// A byte at a time.
std::map<std::string, std::string> parameters(std::string text) {
  text.resize(std::min<std::size_t>(text.size(), 1024));
  if (!text.empty() && text.back() == '\n') text.pop_back();
  std::map<std::string, std::string> all;
  std::string key;
  std::string value;
  bool behind = false;  // the first "="
  for (const char c : text + " ") {
    if (c == ' ') {
      if (!key.empty() || behind) all[key] = value;
      key = value = "";
      behind = false;
    } else if (c == '=' && !behind) {
      behind = true;
    } else {
      (behind ? value : key) += c;
    }
  }
  return all;
}

void checkKernel(const std::string& text) {
  vexo::fuzz::write(kKernel, text);
  std::map<std::string, std::string> read{{"of", "before"}};
  MUST(ReadKernelCommandLine(read) && read == parameters(text));
  MUST(ConsoleEnabled() == (read.count("console") == 1 && read["console"] == "ttyS0"));
  int mode = 7;
  const auto given = read.find("VEXO_runmode");
  MUST(GetRunMode(mode) == (given != read.end()));
  MUST(mode == (given == read.end()
                    ? 7
                    : static_cast<int>(std::strtoul(given->second.c_str(), nullptr, 10))));
}

void checkProcess(const std::string& text) {
  vexo::fuzz::write(kProcess, text);
  const std::string program = text.c_str();
  const std::string name = kName;
  const bool isIt =
      program == name || (program.size() > name.size() &&
                          program.substr(program.size() - name.size() - 1) == "/" + name);
  std::vector<int> pids;
  MUST(vexo::utils::pidof(name, pids) && pids == (isIt ? std::vector<int>{1} : std::vector<int>()));
  Strings seen;
  const auto look = [&](const Strings& commandLine) {
    seen = commandLine;
    return false;
  };
  MUST(vexo::utils::pidof(name, pids, look) && pids.empty() && seen.empty() == !isIt);
  if (!isIt) return;
  std::string joined;
  for (const std::string& element : seen) joined += element + '\0';
  MUST(joined == text || joined == text + '\0');
}

}  // namespace

FUZZ_TARGET(cmdline) {
  static const bool mounted = [] {
    vexo::fuzz::write(kKernel, "");
    return mount(kKernel, "/proc/cmdline", nullptr, MS_BIND, nullptr) == 0 &&
           mount("tmpfs", "/proc/1", "tmpfs", 0, nullptr) == 0;
  }();
  MUST(mounted);
  const std::string text = input.rest();
  checkKernel(text);
  checkProcess(text);
  MUST(vexo::fuzz::errors() == 0);
}
