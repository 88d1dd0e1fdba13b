// A file of text, read whole and by lines in all the ways there are.

#include <fcntl.h>

#include "fuzz.h"
#include "vexo_utils/file.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/procfs.h"

FUZZ_TARGET(text) {
  constexpr char kPath[] = "/tmp/input.txt";
  std::string text = input.part();
  // Longer than a block, as the readers know them.
  for (unsigned times = input.byte() % 16; times > 0; --times) text += text.substr(0, 2000);
  text += input.rest();
  vexo::fuzz::write(kPath, text);
  MUST(readFromFile(kPath, AT_FDCWD) == text);
  std::string read = "before";
  MUST(vexo::utils::File::ReadStringAll(kPath, read) && read == text);
  const auto limit = static_cast<unsigned>(text.size() / 2 + 1);
  MUST(ReadProcFile(kPath, read, limit) && read == text.substr(0, limit));

  std::string lines;
  std::size_t count = 0;
  const auto append = [&](const std::string& line) {
    MUST(line.find('\n') == std::string::npos);
    lines += line + '\n';
    ++count;
    return true;
  };
  MUST(forEachLine(kPath, append, AT_FDCWD));
  if (!text.empty() && text.back() != '\n') lines.pop_back();
  MUST(lines == text);
  std::size_t more = count / 2 + 1;
  MUST(forEachLine(
      kPath, [&](const std::string&) { return --more > 0; }, AT_FDCWD));
  MUST(more == (count == 0 ? 1 : 0));
  MUST(vexo::fuzz::errors() == 0);
}
