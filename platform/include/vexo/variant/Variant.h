// Variant: one dynamic value, as camera descriptions, settings files and messages hold them.
//
// A value is null, a bool, a signed or unsigned 64-bit integer, a double, a string (bytes, by
// convention UTF-8), a timeval, a list of values or a map from strings to values. It is copied
// deeply and moved cheaply; a moved-from value may only be assigned to or destroyed.
//
// Threads:   as for the standard containers: any number may read one value, a writer is alone.
// Failure:   false, and the out-parameter is as it was. Nothing is thrown but std::bad_alloc, and
//            that not by the readers of files and of JSON, which fail instead.
// Nesting:   copying, comparing, writing and destroying walk the levels by recursion. What is read
//            from files or JSON has at most kMaxDepth of them; a program that builds deeper values
//            sees to its stack itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <sys/time.h>

namespace vexo::variant {

class Variant {
 public:
  // The kinds of values, and what lists and maps are held as.
  enum class Type { Null, Bool, Signed, Unsigned, Double, String, Timeval, List, Map };
  using List = std::vector<Variant>;
  using Map = std::map<std::string, Variant>;

  // Lists and maps within one another that the readers accept.
  static constexpr std::size_t kMaxDepth = 64;

  // ---- construction, implicit so that values can be written as they are ----

  Variant() = default;  // null

  // Only a bool makes a Bool, and each integer type makes the 64-bit integer of its signedness.
  // Character types, enumerations, long double and pointers other than char pointers do not
  // compile.
  template <typename T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0>
  Variant(T value) : value_(value) {}
  template <typename T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                 !std::is_same_v<T, char> && !std::is_same_v<T, wchar_t> &&
                                 !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>,
                             int> = 0>
  Variant(T value)
      : value_(static_cast<std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>>(
            value)) {}
  template <typename T,
            std::enable_if_t<std::is_same_v<T, double> || std::is_same_v<T, float>, int> = 0>
  Variant(T value) : value_(static_cast<double>(value)) {}
  Variant(const char* text);  // a null pointer, and so nullptr, makes a null
  Variant(std::string text) : value_(std::move(text)) {}
  Variant(const timeval& time) : value_(time) {}
  Variant(List list) : value_(std::move(list)) {}
  Variant(Map map) : value_(std::move(map)) {}

  Variant(const Variant&) = default;
  Variant(Variant&&) noexcept = default;
  // By value, so that a value may be assigned from a part of itself.
  Variant& operator=(Variant other) noexcept;
  ~Variant() = default;

  Type type() const { return static_cast<Type>(value_.index()); }

  // ---- typed reads ----

  // True when the value has the type of `out`, which then holds a copy. An integer is read through
  // either signedness when its value fits; nothing else is converted, not even an integer to a
  // double or to a bool.
  bool read(bool& out) const;
  bool read(std::int64_t& out) const;
  bool read(std::uint64_t& out) const;
  bool read(double& out) const;
  bool read(std::string& out) const;
  bool read(timeval& out) const;
  bool read(List& out) const;
  bool read(Map& out) const;

  // The list or map itself, to walk or change without a copy; null when the value is none. Valid
  // until the value is assigned to, moved from or destroyed.
  List* list() { return std::get_if<List>(&value_); }
  const List* list() const { return std::get_if<List>(&value_); }
  Map* map() { return std::get_if<Map>(&value_); }
  const Map* map() const { return std::get_if<Map>(&value_); }

  // ---- maps ----

  // False also when the value is no map.
  bool HasKey(const std::string& key) const;

  // The entry of that key, made as a null when it is missing. A value that is no map becomes one
  // first, and what it held is lost.
  Variant& operator[](const std::string& key);

  // Changes nothing: a missing key, or any key of a value that is no map, gives one shared null.
  const Variant& operator[](const std::string& key) const;

  // Same type and same content; integers are compared by value, whatever their signedness. A double
  // never equals an integer, and NaN not even itself.
  bool operator==(const Variant& other) const;
  bool operator!=(const Variant& other) const { return !(*this == other); }

  // ---- text ----

  // The value as compact JSON in UTF-8, map keys sorted. What JSON cannot say: a timeval becomes
  // the map {"sec":S,"usec":U} (and is read back as one), a double that is no finite number becomes
  // null, bytes that are not UTF-8 become U+FFFD.
  std::string toJson() const;

  // Reads one JSON text. Whole numbers become Unsigned, or Signed below zero, or Double where 64
  // bits do not hold them; other numbers become Double. Of a repeated key the last entry counts.
  // False: no JSON, a number beyond the range of double, nesting deeper than kMaxDepth, no memory.
  // Nothing is logged, since only the caller knows whose text it was.
  static bool fromJson(const std::string& text, Variant& out);

  // As fromJson, for a file of up to 1 MiB.
  // False: silently when there is no such file, else with one error line.
  static bool FromJSONFile(const std::string& path, Variant& out);

  // Reads a file of up to 1 MiB with lines of the form key=value into a map. Blanks, tabs and
  // carriage returns around key and value are dropped. Empty lines, lines that begin with '#',
  // lines without '=' and lines without a key are skipped; of a repeated key the last line counts.
  // A value that is a whole decimal number of 64 bits becomes Unsigned, or Signed with a '-'; any
  // other becomes a String, also the empty one.
  // False: silently when there is no such file, else with one error line.
  static bool FromKVPFile(const std::string& path, Variant& out);

 private:
  // In the order of Type.
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, timeval,
               List, Map>
      value_;
};

}  // namespace vexo::variant
