#include "vexo_utils/auth.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include <crypt.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <sys/random.h>

#include "internal/late_library.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "vexo/variant/Variant.h"
#include "vexo_utils/exec.h"

namespace vexo::utils {

namespace {

constexpr int kChecked = 0;
constexpr int kNoAccount = -1;
constexpr int kStoredHashIllFormed = -2;
constexpr int kHashIllFormed = -3;
constexpr int kPasswordEmpty = -4;

constexpr char kLettersAndDigits[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789./";
constexpr unsigned kPlain = 62;  // of them, without the last two
constexpr std::size_t kSaltLength = 16;
constexpr std::size_t kMethodLength = 3;  // "$6$"

// ---- accounts ----

// The accounts from the first one on, until the end of the scope.
class Accounts {
 public:
  Accounts() { setpwent(); }
  ~Accounts() { endpwent(); }
  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;

  // Null at the end, where getpwent(3) leaves errno as it was.
  const passwd* next() {
    for (;;) {
      errno = 0;
      const passwd* account = getpwent();
      if (account != nullptr || errno != EINTR) return account;
    }
  }
};

// "^\$[156]\$[0-9a-zA-Z/\.]+\$" as regcomp(3) has it, where a '\' between brackets is itself; by
// hand, because there letters depend on the locale.
bool isWellFormed(std::string_view hash) {
  constexpr std::string_view kSaltCharacters =
      "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ/\\.";
  if (hash.size() < kMethodLength || hash[0] != '$' || hash[2] != '$') return false;
  if (hash[1] != '1' && hash[1] != '5' && hash[1] != '6') return false;
  const std::size_t end = hash.find_first_not_of(kSaltCharacters, kMethodLength);
  return end != std::string_view::npos && end > kMethodLength && hash[end] == '$';
}

int readStoredHash(const std::string& user, std::string& hash) {
  if (readUserHash(user, hash) != 0) return kNoAccount;
  return isWellFormed(hash) ? kChecked : kStoredHashIllFormed;
}

bool runPasswd(const char* option, const std::string& user) {
  if (user.find('\0') != std::string::npos) return false;  // would be another account's name
  return sysExecSimple("/usr/bin/passwd", option, user.c_str()) == 0;
}

// ---- hashes ----

struct Libcrypt : internal::LateLibrary {
  Libcrypt() : LateLibrary("libcrypt.so.1") {}
  VEXO_LATE_FUNCTION(crypt);
};

struct Libcrypto : internal::LateLibrary {
  Libcrypto() : LateLibrary("libcrypto.so.3") {}
  VEXO_LATE_FUNCTION(CRYPTO_memcmp);
};

// What crypt(3) made, in its own buffer, which is wiped when the scope ends.
class Crypted {
 public:
  Crypted(const char* password, const std::string& salt)
      : text_(library_ ? library_.crypt(password, salt.c_str()) : nullptr),
        length_(text_ != nullptr ? std::strlen(text_) : 0) {}
  ~Crypted() {
    if (text_ != nullptr) explicit_bzero(text_, length_);
  }
  Crypted(const Crypted&) = delete;
  Crypted& operator=(const Crypted&) = delete;

  std::string copy() const { return {text_, length_}; }

  // False when crypt(3) failed: a stored hash never begins with '*'.
  bool equals(const std::string& hash) const {
    if (length_ == 0 || length_ != hash.size()) return false;
    const Libcrypto libcrypto;
    return libcrypto && libcrypto.CRYPTO_memcmp(text_, hash.data(), length_) == 0;
  }

 private:
  const Libcrypt library_;
  char* text_;
  std::size_t length_;
};

// The method and the salt, with the '$' behind it; "" when there is none.
std::string saltOf(const std::string& hash) {
  const std::size_t end = hash.find('$', kMethodLength);
  return end != std::string::npos ? hash.substr(0, end + 1) : "";
}

bool hashesTo(const std::string& password, const std::string& salt, const std::string& hash) {
  const bool same = Crypted(password.c_str(), salt).equals(hash);
  // What is behind a NUL has not been looked at.
  return same && password.find('\0') == std::string::npos;
}

}  // namespace

// ---- accounts ----

int readUserHash(const std::string& user, std::string& hash) {
  bool found = false;
  Accounts accounts;
  // To the end, so that the time does not tell where the account stands.
  while (const passwd* account = accounts.next()) {
    if (found || user != account->pw_name) continue;
    hash = account->pw_passwd;
    found = true;
  }
  return found ? kChecked : kNoAccount;
}

int authenticatePassword(const std::string& user, const std::string& password, bool& ok) {
  ok = false;
  if (password.empty()) return kPasswordEmpty;
  std::string stored;
  const int code = readStoredHash(user, stored);
  if (code != kChecked) return code;
  const std::string salt = saltOf(stored);
  if (salt.empty()) return kStoredHashIllFormed;
  ok = hashesTo(password, salt, stored);
  return kChecked;
}

int authenticatePasswordUniform(const std::string& user, const std::string& password, bool& ok) {
  ok = false;
  if (password.empty()) return kPasswordEmpty;
  std::string stored;
  const int code = readStoredHash(user, stored);
  const std::string salt = code == kChecked ? saltOf(stored) : "";
  // Every method once, and by the account's salt where it is its own: an account's method, or that
  // there is none, makes no difference to the work.
  bool same = false;
  for (const char* other : {"$1$........$", "$5$................$", "$6$................$"}) {
    const bool isOwn = salt.compare(0, kMethodLength, other, kMethodLength) == 0;
    if (hashesTo(password, isOwn ? salt : other, stored)) same = isOwn;
  }
  ok = same;
  return code;
}

int authenticateHash(const std::string& user, const std::string& hash, bool& ok) {
  ok = false;
  if (!isWellFormed(hash)) return kHashIllFormed;
  std::string stored;
  const int code = readStoredHash(user, stored);
  if (code != kChecked) return code;
  ok = stored == hash;
  return kChecked;
}

bool lockPassword(const std::string& user) {
  return runPasswd("-l", user);
}

bool unlockPassword(const std::string& user) {
  return runPasswd("-u", user);
}

// ---- hashes ----

std::string generateSalt() {
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  std::string salt = "$6$";
  for (std::size_t i = 0; i < kSaltLength; ++i) {
    salt += kLettersAndDigits[static_cast<unsigned>(std::rand()) % kPlain];
  }
  return salt + "$";
}

std::string generateSecureSalt() {
  std::array<unsigned char, kSaltLength> random{};
  // So few bytes come at once or not at all, see getrandom(2).
  if (internal::retryOnEintr([&] { return getrandom(random.data(), random.size(), 0); }) < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to get random bytes");
    return "";
  }
  std::string salt = "$6$";
  for (const unsigned char byte : random) salt += kLettersAndDigits[byte % 64];
  return salt + "$";
}

std::string generateHash(const char* password, const std::string& salt) {
  if (password == nullptr) return "";
  return Crypted(password, salt).copy();
}

// ---- the managing controller ----

bool adopted(bool& isAdopted) {
  variant::Variant settings;
  if (!variant::Variant::FromJSONFile("/etc/persistent/vexo_avclient.conf", settings)) return false;
  // A const map gives a null for a missing key, which is no bool either.
  static_cast<const variant::Variant&>(settings)["adopted"].read(isAdopted);
  return true;
}

}  // namespace vexo::utils
