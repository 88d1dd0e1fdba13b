// vexo crash: the crash dumps below /tmp/crashdumps.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <vexo_utils/exec.h>
#include <vexo_utils/fileutils.h>
#include <vexo_utils/procfs.h>
#include <vexo_utils/string_utils.h>

#include "command.h"

namespace {

const std::string kBase = "/tmp/crashdumps/";
constexpr char kReader[] = "read-crash-dump";
constexpr unsigned kReaderMs = 120'000;

// The name of the signal, "-" when the process has not crashed.
std::string signalOf(const std::string& stack) {
  const std::string label = "SIGNAL: 0x";
  if (!vexo::utils::startsWith(stack, label)) return "-";
  const long number = std::strtol(stack.c_str() + label.size(), nullptr, 16);
  const char* const name = strsignal(static_cast<int>(number));
  return std::to_string(number) + " " + name;
}

std::string timeOf(const std::string& path) {
  struct stat st {};
  if (!fileStat(path, st, AT_FDCWD)) return "";
  char text[32];
  tm local{};
  localtime_r(&st.st_mtime, &local);
  return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

int list() {
  std::vector<std::string> stacks;
  glob((kBase + "*/*/stack").c_str(), stacks);
  for (const std::string& path : stacks) {
    const auto stack = readFromFile(path, AT_FDCWD);
    if (!stack) continue;  // its process has been started anew meanwhile
    const std::string dump = dirName(path).substr(kBase.size());
    std::printf("%-31s %s  %s\n", dump.c_str(), timeOf(path).c_str(), signalOf(*stack).c_str());
  }
  return kDone;
}

// The stack file of APP/NUMBER, or of the newest crash of APP; "" when there is none.
std::string stackFileOf(const std::string& dump) {
  const std::string folder = kBase + dump;
  if (isFile(folder + "/stack", AT_FDCWD)) return folder + "/stack";
  std::string newest;
  std::vector<std::string> names;
  if (isDir(folder, AT_FDCWD)) listFolder(folder, names, AT_FDCWD);
  for (const std::string& name : names) {
    const std::string stack = vexo::utils::format("%s/%s/stack", folder.c_str(), name.c_str());
    uint64_t size = 0;
    if (isFile(stack, AT_FDCWD) && fileSize(stack, size, AT_FDCWD) && size != 0) newest = stack;
  }
  return newest;
}

// Beside this program, else where programs are.
std::string reader() {
  std::string folder;
  if (getModuleDir(folder) && isFile(folder + "/" + kReader, AT_FDCWD)) {
    return folder + "/" + kReader;
  }
  return programOf(kReader);
}

// False: there is no reader, or it does not understand the dump or its programs.
bool showFunctions(std::vector<std::string> arguments, const std::string& stackFile) {
  const std::string program = reader();
  if (program.empty()) return false;
  arguments.push_back(stackFile);
  std::string out;
  std::string err;
  const int status = vexo::utils::sysExec(nullptr, &out, &err, kReaderMs, 0, 0, program, arguments);
  std::fputs((status == 0 ? out : err).c_str(), status == 0 ? stdout : stderr);
  return status == 0;
}

int show(const std::string& dump, const std::vector<std::string>& options, bool raw) {
  const std::string stackFile = stackFileOf(dump);
  if (stackFile.empty()) return failed("no crash of %s", dump.c_str());
  std::printf("%s  %s\n", stackFile.c_str(), timeOf(stackFile).c_str());
  if (!raw && showFunctions(options, stackFile)) return kDone;
  const auto stack = readFromFile(stackFile, AT_FDCWD);
  if (!stack) return failed("cannot read %s", stackFile.c_str());
  std::fputs(stack->c_str(), stdout);
  return kDone;
}

int run(int argc, char** argv) {
  std::vector<std::string> readerOptions;
  bool raw = false;
  for (int option = 0; (option = getopt(argc, argv, "rd:p:")) != -1;) {
    if (option == '?') return misused("wrong option -%c", optopt);
    if (option == 'r') raw = true;
    if (option == 'd') readerOptions.insert(readerOptions.end(), {"-d", optarg});
    if (option == 'p') readerOptions.insert(readerOptions.end(), {"-p", optarg});
  }
  const std::vector<std::string> words(argv + optind, argv + argc);
  if (words.empty() || words == std::vector<std::string>{"list"}) return list();
  if (words.size() != 2 || words[0] != "show") return misused("list, or show a dump");
  return show(words[1], readerOptions, raw);
}

}  // namespace

const Command crashCommand = {"crash", "list the crash dumps of this machine, or show one",
                              R"(usage: vexo crash [list]
       vexo crash [-r] [-d FOLDER]... [-p PREFIX] show APP[/NUMBER]

Lists what programs with a crash handler have left: the dump, its time, and the signal, or "-" for
one that has not crashed. Or shows a dump, without a number the newest crash of APP: its functions
and lines by read-crash-dump where that is installed, else the file as it is.

  -r         the file as it is: signal, stack, memory map
  -d FOLDER  where the programs with their debug information are
  -p PREFIX  of the binutils for the device, such as arm-linux-gnueabihf-

  vexo crash -d build/release show streamer
)",
                              run};
