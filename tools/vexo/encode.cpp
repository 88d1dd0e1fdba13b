// vexo b64, vexo hex: binary data as text, and back.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include <vexo_utils/auth.h>

#include "command.h"

namespace {

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned sizeOf(const std::string& text) {
  return static_cast<unsigned>(text.size());  // at most 64 MiB
}

void write(const std::vector<unsigned char>& bytes) {
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

// Of `translate`, b64 or unb64, which tells the room it needs.
template <typename Translate>
std::vector<unsigned char> translated(Translate translate, const unsigned char* in, unsigned size) {
  unsigned room = 0;
  translate(in, size, nullptr, room);
  std::vector<unsigned char> out(room);
  out.resize(translate(in, size, out.data(), room));
  return out;
}

int encodeBase64(const std::string& input) {
  const auto out = translated(vexo::utils::b64, bytesOf(input), sizeOf(input));
  write(out);
  std::puts("");
  return kDone;
}

int decodeBase64(std::string text) {
  const auto isBreak = [](char c) { return c == '\n' || c == '\r'; };
  text.erase(std::remove_if(text.begin(), text.end(), isBreak), text.end());
  const auto out = translated(vexo::utils::unb64, bytesOf(text), sizeOf(text));
  if (out.empty() && !text.empty()) return failed("this is no Base64");
  write(out);
  return kDone;
}

int encodeHex(const std::string& input, const std::string& separator) {
  std::puts(vexo::utils::bin2hex(bytesOf(input), sizeOf(input), separator, '0').c_str());
  return kDone;
}

int decodeHex(const std::string& input) {
  write(vexo::utils::hex2bin(input));
  return kDone;
}

int run(int argc, char** argv, bool hex) {
  bool decode = false;
  std::string separator;
  for (int option = 0; (option = getopt(argc, argv, hex ? "ds:" : "d")) != -1;) {
    if (option == '?') return misused("wrong option -%c", optopt);
    if (option == 'd') decode = true;
    if (option == 's') separator = optarg;
  }
  if (optind != argc) return misused("it reads standard input");
  std::string input;
  if (!readInput(input)) return failed("cannot read standard input");
  if (hex) return decode ? decodeHex(input) : encodeHex(input, separator);
  return decode ? decodeBase64(input) : encodeBase64(input);
}

int runBase64(int argc, char** argv) {
  return run(argc, argv, false);
}

int runHex(int argc, char** argv) {
  return run(argc, argv, true);
}

}  // namespace

const Command b64Command = {"b64", "write standard input as Base64, with -d back",
                            R"(usage: vexo b64 [-d]

  -d        decode; line breaks are passed over

  vexo b64 <key.bin | vexo b64 -d | cmp - key.bin
)",
                            runBase64};

const Command hexCommand = {"hex", "write standard input in hexadecimal, with -d back",
                            R"(usage: vexo hex [-d] [-s SEPARATOR]

  -d            decode: digits make bytes two by two, anything else separates them
  -s SEPARATOR  between two bytes

  printf 'abc' | vexo hex -s :
)",
                            runHex};
