// LateLibrary: a shared library that is loaded when it is first used, and then stays.
//
// For those that few daemons need. Linked, they would cost every process its share: of 30 daemons
// each would carry 200 KiB of relocated tables of libcrypto on ARM, and start three times as
// slowly.
//
// Threads: any.
#pragma once

namespace vexo::utils::internal {

class LateLibrary {
 public:
  // False below, logged as "Failed to load library: REASON", when it is not to be had; the next
  // object tries again.
  explicit LateLibrary(const char* soname);
  ~LateLibrary();
  LateLibrary(const LateLibrary&) = delete;
  LateLibrary& operator=(const LateLibrary&) = delete;

  explicit operator bool() const { return complete_; }

 protected:
  // Null, and the library of no use, when it has no such function.
  template <typename Function>
  Function find(const char* name) {
    return reinterpret_cast<Function>(findAny(name));
  }

 private:
  using AnyFunction = void (*)();
  AnyFunction findAny(const char* name);

  void* handle_;
  bool complete_;
};

}  // namespace vexo::utils::internal

// A member of a class that is derived from LateLibrary: the library's function, under its own name.
// NOLINTNEXTLINE(bugprone-macro-parentheses): a name that is declared
#define VEXO_LATE_FUNCTION(name) decltype(&::name) name = find<decltype(&::name)>(#name)
