// The accounts of passwd(5), and a hash that somebody claims to be an account's.

#include "fuzz.h"
#include "vexo_utils/auth.h"
#include "vexo_utils/validation.h"

namespace {

using namespace vexo::utils;

constexpr char kUser[] = "operator";
constexpr char kWellFormed[] = "^\\$[156]\\$[0-9a-zA-Z/\\.]+\\$";

bool isWellFormed(const std::string& hash) {
  return regex_match(kWellFormed, hash, true);
}

}  // namespace

FUZZ_TARGET(accounts) {
  const std::string hash = input.part();
  const std::string file = input.rest();
  vexo::fuzz::write("/etc/passwd", file);
  std::string stored = "before";
  bool ok = true;
  int expected = readUserHash(kUser, stored);
  MUST(expected == (stored == "before" ? -1 : 0) || stored == "before");
  MUST(stored == "before" || file.find(stored) != std::string::npos);
  if (expected == 0 && !isWellFormed(stored)) expected = -2;

  MUST(authenticatePassword(kUser, "", ok) == -4 && !ok);
  if (expected != 0) MUST(authenticatePassword(kUser, "password", ok) == expected && !ok);
  MUST(authenticateHash(kUser, hash, ok) == (isWellFormed(hash) ? expected : -3));
  MUST(ok == (expected == 0 && isWellFormed(hash) && hash == stored));
  ok = false;
  MUST(authenticateHash(kUser, stored, ok) == (expected == 0 ? 0 : -3) ||
       (expected == -1 && stored == "before"));
  MUST(ok == (expected == 0));
}
