// vexo_ipc_cli: takes requests to the control daemon in the place of the camera's command-line
// client, and answers them as that daemon would.
//
//   -m=JSON    the request: {"functionName":"Reboot","delayMs":MS} or
//              {"functionName":"SaveToFlash","sync":BOOL}
//   -T=NAME    the destination: vexo_ctlserver, nobody else is there
//   -t=MS      how long to wait for it
//   -r=0|1     whether to wait for a reply
//   -z         is accepted
//
// Does nothing but append a line to the record, the file that VEXO_IPC_RECORD names (default
// /run/vexo_ipc_cli.record): the arguments as they came, separated by blanks.
// Exit status: 0 taken, 1 refused or not recorded, 2 not understood, with the reason on standard
// error.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include <getopt.h>

#include "vexo/variant/Variant.h"

namespace {

using vexo::variant::Variant;

struct Options {
  Variant request;
  std::string destination;
  std::string timeoutMs;
  std::string reply;
};

int fail(int status, const char* reason) {
  std::fprintf(stderr, "vexo_ipc_cli: %s\n", reason);
  return status;
}

bool isNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool parse(int argc, char** argv, Options& options) {
  const option known[] = {
      {"m", required_argument, nullptr, 'm'}, {"T", required_argument, nullptr, 'T'},
      {"t", required_argument, nullptr, 't'}, {"r", required_argument, nullptr, 'r'},
      {"z", no_argument, nullptr, 'z'},       {}};
  for (int letter = 0; (letter = getopt_long_only(argc, argv, "", known, nullptr)) != -1;) {
    if (letter == '?') return false;
    if (letter == 'm' && !Variant::fromJson(optarg, options.request)) return false;
    if (letter == 'T') options.destination = optarg;
    if (letter == 't') options.timeoutMs = optarg;
    if (letter == 'r') options.reply = optarg;
  }
  return optind == argc && isNumber(options.timeoutMs) &&
         (options.reply == "0" || options.reply == "1");
}

// As the control daemon judges.
bool accepts(const Variant& request) {
  std::string function;
  std::uint64_t delayMs = 0;
  bool sync = false;
  request["functionName"].read(function);
  return (function == "Reboot" && request["delayMs"].read(delayMs)) ||
         (function == "SaveToFlash" && request["sync"].read(sync));
}

bool record(int argc, char** argv) {
  const char* const path = std::getenv("VEXO_IPC_RECORD");
  std::ofstream file(path != nullptr ? path : "/run/vexo_ipc_cli.record", std::ios::app);
  std::string line;
  for (int i = 1; i < argc; ++i) line += (i > 1 ? " " : "") + std::string(argv[i]);
  file << line + '\n' << std::flush;
  return file.good();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) return fail(2, "not a request");
  if (options.destination != "vexo_ctlserver") return fail(1, "nobody of that name is there");
  if (!accepts(std::as_const(options.request))) return fail(1, "refused");
  if (!record(argc, argv)) return fail(1, "the request cannot be recorded");
  return 0;
}
