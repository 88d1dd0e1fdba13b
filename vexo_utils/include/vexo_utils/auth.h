// Who may come in: passwords and access tokens checked, crypt(3) hashes made, accounts locked; and
// binary data as Base64 or hexadecimal text.
//
// The accounts are those of passwd(5), walked with getpwent(3); shadow(5) is not consulted. Hashes
// have the form $id$salt$digest, see crypt(5). Well-formed is one with the id 1 (MD5), 5 (SHA-256)
// or 6 (SHA-512), then one or more letters, digits, '/', '.' or '\', then a '$'; what follows is
// not looked at. So these are not: yescrypt's, one with "rounds=", a locked account's, an empty
// one, the "x" of a shadowed account.
//
// Threads:   the checks and generateHash use the process-wide cursor of getpwent(3) and the buffer
//            of crypt(3), generateSalt the generator of rand(3): one thread at a time. The rest may
//            be called from any.
// Result:    the checks return a code, and put the verdict into `ok`, which is false whenever the
//            code is not 0:
//                0  checked                    -3  the caller's hash is not well-formed
//               -1  no such account            -4  the password is empty
//               -2  its hash is not well-      -5  the token is empty
//                   formed                  -9000  the access daemon did not answer
// Loaded:    libcrypt.so.1 and libcrypto.so.3, by the first hash that is made or checked. While
//            that fails ("Failed to load library: REASON"), no password is the account's and
//            generateHash gives "".
// Failure:   else only authenticateToken and generateSecureSalt log. Nothing is thrown but
//            std::bad_alloc.
#pragma once

#include <string>
#include <vector>

#include <vexo/variant/Variant.h>
#include <vexo_utils/export.h>

namespace vexo::utils {

// ---- accounts ----

// The password field of the first account of that name, whatever its form.
// -1: there is none, and `hash` is as it was.
VEXO_UTILS_API int readUserHash(const std::string& user, std::string& hash);

// Whether the password is the account's; compared in constant time. One with a NUL in it never is.
// How long it takes, and the code, tell whether there is such an account: before anybody from
// outside, use authenticatePasswordUniform.
VEXO_UTILS_API int authenticatePassword(const std::string& user, const std::string& password,
                                        bool& ok);

// As authenticatePassword, with the same codes, but an account's hash of any of the three methods,
// an ill-formed one and an account that does not exist all take the time of one hash by each
// method. (What is left: salts of other lengths than generateSalt's.) Tell the one who asks `ok`
// alone, never the code.
VEXO_UTILS_API int authenticatePasswordUniform(const std::string& user, const std::string& password,
                                               bool& ok);

// Whether `hash` is the account's, byte by byte. The comparison ends at the first difference, so
// that its time tells how much was right; and who has read the hash comes in without the password.
// For hashes from outside there is no safe use: have the password sent, and check that.
VEXO_UTILS_API int authenticateHash(const std::string& user, const std::string& hash, bool& ok);

// Lock and unlock an account's password by passwd(1), as root; wait for it to end. False: it failed
// or there is no such program, or the name has a NUL in it. A name that begins with '-' is an
// option to that program: check names from outside with username_valid (validation.h) first.
VEXO_UTILS_API bool lockPassword(const std::string& user);
VEXO_UTILS_API bool unlockPassword(const std::string& user);

// ---- hashes ----

// "$6$", 16 letters and digits, "$": a salt for SHA-512. It repeats within a second, can be guessed
// from the time, and seeds rand(3) anew for the whole process: where that matters, use
// generateSecureSalt.
VEXO_UTILS_API std::string generateSalt();

// A salt of the same form, '.' and '/' among its characters, of 96 bits from getrandom(2). Waits
// for the kernel's generator early after boot.
// "": "Unable to get random bytes"; such a salt makes no hash.
VEXO_UTILS_API std::string generateSecureSalt();

// What crypt(3) makes of both, up to their first NULs; "" when it gives nothing or `password` is
// null. A text that begins with '*' is its sign that it did not like the salt, and no hash.
VEXO_UTILS_API std::string generateHash(const char* password, const std::string& salt);

// ---- the access daemon and the managing controller ----

// Asks the access daemon ("vexo_avclient") whether it accepts the token. Waits up to 5 s until it
// has the request, up to 5 s more for its answer.
// -9000: "Unable to create BlockingIpcHandler instance", "Unable to send request" (also a token
// that is too long or not UTF-8), "Error on waiting requests sent" (also when no daemon is there)
// or "Error on waiting responses received".
VEXO_UTILS_API int authenticateToken(const std::string& token, bool& ok);

// Reads from /etc/persistent/vexo_avclient.conf (JSON) whether a controller manages this camera.
// True: the file was read; `isAdopted` is as it was when the file does not say, or not by a bool.
// False: it cannot be read, and `isAdopted` is as it was. The platform logs why, unless there is no
// such file.
VEXO_UTILS_API bool adopted(bool& isAdopted);

// ---- Base64, as in RFC 4648: '+' and '/', padded, no line breaks, no terminating NUL ----
//
// `outLength` is the room at `out`, and is not changed when that suffices. Else, and when `out` is
// null, it receives the room that is needed, and the result is 0. `in` and `out` must not overlap.

// The number of characters written; 0 also when `in` is null or empty. Room: 4 for every 3 bytes or
// part of them; above 3221225469 bytes, what is needed cannot be said, let alone be had:
// 4294967295.
VEXO_UTILS_API unsigned int b64(const unsigned char* in, unsigned int length, unsigned char* out,
                                unsigned int& outLength);

// The number of bytes written; 0 also when `in` is null or empty, `length` is no multiple of 4 or a
// character is none of Base64 (line breaks and blanks are none; what was written is of no use
// then). A '=' in the third or fourth place of a group ends the text, whatever follows it. The bits
// that do not make a whole byte before it are not looked at. Room: 3 for every 4 characters, padded
// or not.
VEXO_UTILS_API unsigned int unb64(const unsigned char* in, unsigned int length, unsigned char* out,
                                  unsigned int& outLength);

// ---- hexadecimal ----

// Two digits for each byte, in lower case, and `separator` between bytes. `fill` stands in the
// place of a leading zero: '0' in general. "" when `data` is null, or for more than a string holds.
VEXO_UTILS_API std::string bin2hex(const unsigned char* data, unsigned int length,
                                   const std::string& separator, char fill);

// As bin2hex(data, length, "", '0').
VEXO_UTILS_API void bin2Hex(const unsigned char* data, unsigned int length, std::string& out);

// The bytes that the text's digits, of either case, make two by two. Anything else separates bytes
// and is skipped, so that a last digit alone makes a byte: "0a:ff:1" is 0x0a, 0xff, 0x01.
VEXO_UTILS_API std::vector<unsigned char> hex2bin(std::string text);

}  // namespace vexo::utils

// ---- the messages that are sent ----

namespace vexo::ipc::messages {

// A message to another daemon: a map of named values, empty at first, which is read and written as
// the Variant that it is.
class VEXO_UTILS_API BaseMessage : public vexo::variant::Variant {
 public:
  BaseMessage() : Variant(Map()) {}
  BaseMessage(const BaseMessage&) = default;
  BaseMessage(BaseMessage&&) noexcept = default;
  BaseMessage& operator=(const BaseMessage&) = default;
  BaseMessage& operator=(BaseMessage&&) noexcept = default;
  virtual ~BaseMessage() = default;

  // Gives each of these fields that is missing or of another type its default:
  //   "id"                      unsigned   one that is new in this process for the next 4 s
  //   "timeStamp"               timeval    the wall clock
  //   "from", "to"              string     ""
  //   "functionName"            string     ""
  //   "queueIfDestUnavailable"  bool       true
  virtual void NormalizeFields();
};

// Asks whether an access token is valid.
class VEXO_UTILS_API ValidateAuthToken : public BaseMessage {
 public:
  // As BaseMessage's, and before it:
  //   "functionName"      string  "ValidateAuthToken"
  //   "responseExpected"  bool    true
  //   "authToken"         string  ""
  //   "transactionId"     signed  -1
  //   "isBroadcast"       bool    false
  void NormalizeFields() override;
};

}  // namespace vexo::ipc::messages
