// Mounts that end with the scope, which fails where a file in them is still open.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/mount.h>

namespace vexo::test {

class Mounted {
 public:
  // An empty file system of its own.
  explicit Mounted(const std::string& where, const char* options = "size=64m")
      : Mounted("tmpfs", where, 0, options) {}
  // `what` in the place of what is there.
  static Mounted over(const std::string& where, const std::string& what) {
    return {what, where, MS_BIND, nullptr};
  }
  ~Mounted() { EXPECT_EQ(umount(at.c_str()), 0) << at; }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  void makeReadOnly() const {
    EXPECT_EQ(mount(nullptr, at.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << at;
  }

 private:
  Mounted(const std::string& what, std::string where, unsigned long flags, const char* options)
      : at(std::move(where)) {
    if (flags == 0) std::filesystem::create_directories(at);
    EXPECT_EQ(mount(what.c_str(), at.c_str(), "tmpfs", flags, options), 0) << at;
  }

  std::string at;
};

}  // namespace vexo::test
