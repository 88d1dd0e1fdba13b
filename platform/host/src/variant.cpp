#include "vexo/variant/Variant.h"

#include <limits>
#include <utility>

namespace vexo::variant {

namespace {

// Gives `out` what `value` holds, if that is a T.
template <typename T, typename Value>
bool readAs(const Value& value, T& out) {
  const T* held = std::get_if<T>(&value);
  if (held == nullptr) return false;
  T copy(*held);  // first, so that `out` is whole when memory runs out, or may be a part of `value`
  out = std::move(copy);
  return true;
}

template <typename T>
bool equal(const T& a, const T& b) {
  return a == b;
}

bool equal(const timeval& a, const timeval& b) {
  return a.tv_sec == b.tv_sec && a.tv_usec == b.tv_usec;
}

}  // namespace

Variant::Variant(const char* text) {
  if (text != nullptr) value_ = std::string(text);
}

Variant& Variant::operator=(Variant other) noexcept {
  value_.swap(other.value_);
  return *this;
}

bool Variant::read(bool& out) const {
  return readAs(value_, out);
}

bool Variant::read(std::int64_t& out) const {
  const auto* other = std::get_if<std::uint64_t>(&value_);
  if (other == nullptr) return readAs(value_, out);
  if (*other > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return false;
  out = static_cast<std::int64_t>(*other);
  return true;
}

bool Variant::read(std::uint64_t& out) const {
  const auto* other = std::get_if<std::int64_t>(&value_);
  if (other == nullptr) return readAs(value_, out);
  if (*other < 0) return false;
  out = static_cast<std::uint64_t>(*other);
  return true;
}

bool Variant::read(double& out) const {
  return readAs(value_, out);
}

bool Variant::read(std::string& out) const {
  return readAs(value_, out);
}

bool Variant::read(timeval& out) const {
  return readAs(value_, out);
}

bool Variant::read(List& out) const {
  return readAs(value_, out);
}

bool Variant::read(Map& out) const {
  return readAs(value_, out);
}

bool Variant::HasKey(const std::string& key) const {
  const Map* entries = map();
  return entries != nullptr && entries->count(key) != 0;
}

Variant& Variant::operator[](const std::string& key) {
  Map* entries = map();
  if (entries == nullptr) entries = &value_.emplace<Map>();
  return (*entries)[key];
}

const Variant& Variant::operator[](const std::string& key) const {
  static const Variant missing;
  const Map* entries = map();
  if (entries == nullptr) return missing;
  const auto entry = entries->find(key);
  return entry != entries->end() ? entry->second : missing;
}

bool Variant::operator==(const Variant& other) const {
  if (type() != other.type()) {
    // Only integers can be equal then: those that both signednesses can hold.
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    return read(a) && other.read(b) && a == b;
  }
  return std::visit(
      [&other](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        return equal(held, std::get<Held>(other.value_));
      },
      value_);
}

}  // namespace vexo::variant
