// The text forms of a Variant: JSON, and files of key=value lines.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <new>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include "vexo/log.h"
#include "vexo/variant/Variant.h"

namespace vexo::variant {

namespace {

using nlohmann::json;

// Bytes. A limit for hostile files: values take some 30 times the memory of their text.
constexpr std::size_t kMaxFile = std::size_t{1} << 20;
constexpr std::string_view kBlanks = " \t\r";

// ---- files ----

void logFailure(int error, const char* what, const std::string& path) {
  logInternal("vexo_platform", __FILE__, __func__, __LINE__, 3, error, 0, "%s \"%s\"", what,
              path.c_str());
}

class OpenFile {
 public:
  explicit OpenFile(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() {
    if (fd_ >= 0) close(fd_);
  }

  bool valid() const { return fd_ >= 0; }

  // As read(2), repeated when a signal interrupts it.
  ssize_t readSome(char* buffer, std::size_t size) const {
    ssize_t count = 0;
    do {
      count = read(fd_, buffer, size);
    } while (count < 0 && errno == EINTR);
    return count;
  }

 private:
  int fd_;
};

// The whole file. False is logged, except for a file that is not there.
bool readFile(const std::string& path, std::string& text) {
  const OpenFile file(path);
  if (!file.valid()) {
    if (errno != ENOENT) logFailure(errno, "Failed to open", path);
    return false;
  }
  char chunk[4096];
  for (;;) {
    const ssize_t count = file.readSome(chunk, sizeof chunk);
    if (count == 0) return true;
    if (count < 0) {
      logFailure(errno, "Failed to read", path);
      return false;
    }
    text.append(chunk, static_cast<std::size_t>(count));
    if (text.size() > kMaxFile) {
      logFailure(EFBIG, "Refused to read", path);
      return false;
    }
  }
}

// Reads the file and gives `out` what `parse` makes of its text.
template <typename Parse>
bool fromFile(const std::string& path, Variant& out, Parse parse) {
  try {
    std::string text;
    if (!readFile(path, text)) return false;
    return parse(text, out);
  } catch (const std::bad_alloc&) {
    logFailure(ENOMEM, "Failed to read", path);
    return false;
  }
}

// ---- JSON ----

// Builds a Variant from the parser's events. The parser itself keeps no call frame for an open list
// or map, so that the limit here is the only one that depth needs.
class Builder final : public nlohmann::json_sax<json> {
 public:
  Variant& root() { return root_; }

  bool null() override { return place({}); }
  bool boolean(bool value) override { return place(value); }
  bool number_integer(number_integer_t value) override { return place(value); }
  bool number_unsigned(number_unsigned_t value) override { return place(value); }
  bool number_float(number_float_t value, const string_t& /*text*/) override {
    return place(value);
  }
  bool string(string_t& value) override { return place(std::move(value)); }
  bool binary(binary_t& /*value*/) override { return false; }  // not in JSON text

  bool start_object(std::size_t /*elements*/) override { return open(Variant::Map()); }
  bool start_array(std::size_t /*elements*/) override { return open(Variant::List()); }
  bool end_object() override { return closeOne(); }
  bool end_array() override { return closeOne(); }

  bool key(string_t& name) override {
    entry_ = &(*open_.back())[name];
    return true;
  }

  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

 private:
  // Puts a value where the text is: at the root, at the end of the open list, or under the last key
  // of the open map.
  bool place(Variant value) {
    if (!open_.empty() && open_.back()->list() != nullptr) {
      entry_ = &open_.back()->list()->emplace_back();
    }
    *entry_ = std::move(value);
    return true;
  }

  bool open(Variant container) {
    if (open_.size() == Variant::kMaxDepth) return false;
    place(std::move(container));
    open_.push_back(entry_);
    return true;
  }

  bool closeOne() {
    open_.pop_back();
    return true;
  }

  Variant root_;
  // The open containers, outermost first. They stay where they are: a list grows only while nothing
  // inside it is open.
  std::vector<Variant*> open_;
  Variant* entry_ = &root_;  // where the last value went, or the next of a map goes
};

// Throws std::bad_alloc only.
bool parseJson(const std::string& text, Variant& out) {
  Builder builder;
  if (!json::sax_parse(text, &builder)) return false;
  out = std::move(builder.root());
  return true;
}

json toTree(const Variant& value);

json toTree(const Variant::List& list) {
  json tree = json::array();
  for (const Variant& element : list) tree.push_back(toTree(element));
  return tree;
}

json toTree(const Variant::Map& map) {
  json tree = json::object();
  for (const auto& [key, entry] : map) tree.emplace(key, toTree(entry));
  return tree;
}

json toTree(const timeval& time) {
  return {{"sec", std::int64_t{time.tv_sec}}, {"usec", std::int64_t{time.tv_usec}}};
}

template <typename T>
json leaf(const Variant& value) {
  T content{};
  value.read(content);
  return content;
}

json toTree(const Variant& value) {
  switch (value.type()) {
    case Variant::Type::Null:
      return nullptr;
    case Variant::Type::Bool:
      return leaf<bool>(value);
    case Variant::Type::Signed:
      return leaf<std::int64_t>(value);
    case Variant::Type::Unsigned:
      return leaf<std::uint64_t>(value);
    case Variant::Type::Double:
      return leaf<double>(value);
    case Variant::Type::String:
      return leaf<std::string>(value);
    case Variant::Type::Timeval: {
      timeval time{};
      value.read(time);
      return toTree(time);
    }
    case Variant::Type::List:
      return toTree(*value.list());
    case Variant::Type::Map:
      return toTree(*value.map());
  }
  return nullptr;
}

// ---- key=value lines ----

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// True when all of the text is a decimal number that T can hold.
template <typename T>
bool isNumber(std::string_view text, T& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

Variant kvpValue(std::string_view text) {
  std::uint64_t number = 0;
  if (isNumber(text, number)) return number;
  std::int64_t negative = 0;
  if (isNumber(text, negative)) return negative;
  return std::string(text);
}

void addKvpLine(std::string_view line, Variant::Map& entries) {
  line = trimmed(line);
  if (line.empty() || line.front() == '#') return;
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return;
  const std::string_view key = trimmed(line.substr(0, equals));
  if (key.empty()) return;
  entries.insert_or_assign(std::string(key), kvpValue(trimmed(line.substr(equals + 1))));
}

bool parseKvp(std::string_view text, Variant& out) {
  Variant::Map entries;
  while (!text.empty()) {
    const std::size_t length = std::min(text.find('\n'), text.size());
    addKvpLine(text.substr(0, length), entries);
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  out = std::move(entries);
  return true;
}

}  // namespace

std::string Variant::toJson() const {
  return toTree(*this).dump(-1, ' ', false, json::error_handler_t::replace);
}

bool Variant::fromJson(const std::string& text, Variant& out) {
  try {
    return parseJson(text, out);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool Variant::FromJSONFile(const std::string& path, Variant& out) {
  return fromFile(path, out, [&path](const std::string& text, Variant& value) {
    if (parseJson(text, value)) return true;
    logFailure(0, "Malformed or too deeply nested JSON in", path);
    return false;
  });
}

bool Variant::FromKVPFile(const std::string& path, Variant& out) {
  return fromFile(path, out, parseKvp);
}

}  // namespace vexo::variant
