// Lets a user in by password, and gives out a token for the rest of the session.
//
//   password --hash PASSWORD    prints a hash for the second field of passwd(5)
//   password USER PASSWORD      prints a token, or "refused" with exit status 1
//
// A real program reads passwords from where others cannot see them, not from its arguments.

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include <vexo_utils/auth.h>
#include <vexo_utils/process.h>
#include <vexo_utils/validation.h>

namespace {

// 192 bits of the system's randomness, as Base64. "" on failure.
std::string newToken() {
  std::array<unsigned char, 24> secret{};
  std::array<unsigned char, 32> text{};  // 4 characters for 3 bytes
  unsigned room = text.size();
  if (!vexo::utils::randomBytes(secret.data(), secret.size())) return "";
  const unsigned length = vexo::utils::b64(secret.data(), secret.size(), text.data(), room);
  return {text.begin(), text.begin() + length};
}

bool mayEnter(const std::string& user, const std::string& password) {
  bool ok = false;
  // The code says whether there is such a user: that is for nobody outside.
  vexo::utils::authenticatePasswordUniform(user, password, ok);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s --hash PASSWORD | USER PASSWORD\n", argv[0]);
    return 2;
  }
  if (std::strcmp(argv[1], "--hash") == 0) {
    const std::string salt = vexo::utils::generateSecureSalt();
    const std::string hash = salt.empty() ? "" : vexo::utils::generateHash(argv[2], salt);
    std::puts(hash.c_str());
    return hash.empty() ? 1 : 0;
  }
  const bool allowed = vexo::utils::username_valid(argv[1], true) && mayEnter(argv[1], argv[2]);
  const std::string token = allowed ? newToken() : "";
  std::printf("%s\n", token.empty() ? "refused" : ("token " + token).c_str());
  return token.empty() ? 1 : 0;
}
