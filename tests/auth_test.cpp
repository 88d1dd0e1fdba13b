#include "vexo_utils/auth.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo/ipc/BlockingIpcHandler.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/timer.h"
#include "wait.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using ipc::BlockingIpcHandler;
using ipc::messages::BaseMessage;
using ipc::messages::ValidateAuthToken;
using testing::MatchesRegex;
using variant::Variant;

using namespace test;
using Strings = std::vector<std::string>;

void setAccounts(const std::string& alicesField) {
  writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\nalice:" + alicesField +
                               ":1000:1000::/:/bin/sh\nalice:$1$ab$second:1001:1001::/:/bin/sh\n");
}

// The code, and the verdict after it: "0 yes", "-2 no".
template <typename Check, typename... Arguments>
std::string verdict(Check check, const Arguments&... arguments) {
  bool ok = true;
  const int code = check(arguments..., ok);
  return std::to_string(code) + (ok ? " yes" : " no");
}

// ---- passwords ----

std::string outputOf(const std::string& program, const Strings& arguments) {
  std::string text;
  EXPECT_EQ(sysExec(nullptr, &text, nullptr, 0, 0, 0, program, arguments), 0) << program;
  return text.substr(0, text.find('\n'));
}

TEST(Password, HashesAreThoseOfOtherPrograms) {
  const std::string nul(1, '\0');
  const std::pair<std::string, std::string> methods[] = {
      {"1", "md5crypt"}, {"5", "sha256crypt"}, {"6", "sha512crypt"}};
  for (const std::string& password : Strings{"secret", "x $1$ \xC3\xBC:" + std::string(99, 'x')}) {
    for (const auto& [id, name] : methods) {
      const std::string salt = generateSecureSalt().substr(3, id == "1" ? 8 : 16);
      const std::string ours = generateHash(password.c_str(), "$" + id + "$" + salt + "$");
      EXPECT_EQ(ours, outputOf("/usr/bin/mkpasswd", {"-m", name, "-S", salt, password}));
      EXPECT_EQ(ours, outputOf("/usr/bin/openssl", {"passwd", "-" + id, "-salt", salt, password}));
      setAccounts(ours);
      for (const auto check : {authenticatePassword, authenticatePasswordUniform}) {
        EXPECT_EQ(verdict(check, "alice", password), "0 yes") << name;
        for (const std::string& wrong : {password + "x", password.substr(1), password + nul}) {
          EXPECT_EQ(verdict(check, "alice", wrong), "0 no") << wrong;
        }
      }
      EXPECT_EQ(verdict(authenticateHash, "alice", ours), "0 yes");
      EXPECT_EQ(verdict(authenticateHash, "alice", ours + nul), "0 no");
      EXPECT_EQ(verdict(authenticateHash, "alice", ours.substr(0, ours.size() - 1)), "0 no");
    }
  }
}

TEST(Password, CodesForWhatAnAccountMayHold) {
  const std::string good = generateHash("secret", "$6$abc$");
  const Strings fields = {"$1$ab$xyz", "$5$ab$", "$6$a/.Z9$*0", "$6$a\\b$*0", "$6$ab$c$d",
                          // and those that are not well-formed
                          "", "x", "*", "!" + good, "$2$ab$xyz", "$6$$x", "6$ab$x", "$6$ab",
                          "$6ab$x", "$6", "$y$j9T$ab$x", "$5$rounds=5000$ab$x", "$6$a b$x",
                          "$6$a\xC3\xBC$", "$6$a-b$x"};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const bool wellFormed = i < 5;
    SCOPED_TRACE(fields[i]);
    setAccounts(fields[i]);
    std::string hash;
    EXPECT_EQ(readUserHash("alice", hash), 0);
    EXPECT_EQ(hash, fields[i]);  // of the first of two
    const char* const expected = wellFormed ? "0 no" : "-2 no";
    EXPECT_EQ(verdict(authenticatePassword, "alice", "secret"), expected);
    EXPECT_EQ(verdict(authenticatePasswordUniform, "alice", "secret"), expected);
    EXPECT_EQ(verdict(authenticateHash, "alice", good), expected);
    EXPECT_EQ(verdict(authenticateHash, "alice", hash), wellFormed ? "0 yes" : "-3 no");
    EXPECT_EQ(verdict(authenticateHash, "nobody", hash), wellFormed ? "-1 no" : "-3 no");
  }
  for (const std::string& user : Strings{"", "Alice", "alic", std::string("alice\0", 6),
                                         "alice:", "root:x", "alice\n", "x\nroot"}) {
    std::string hash = "before";
    EXPECT_EQ(readUserHash(user, hash), -1) << user;
    EXPECT_EQ(hash, "before");
    for (const auto check : {authenticatePassword, authenticatePasswordUniform}) {
      EXPECT_EQ(verdict(check, user, "secret"), "-1 no");
      EXPECT_EQ(verdict(check, user, ""), "-4 no");
    }
  }
}

TEST(Password, Salts) {
  std::string salt;
  std::time_t second = 0;
  do {
    second = std::time(nullptr);
    salt = generateSalt();
  } while (std::time(nullptr) != second);
  std::srand(static_cast<unsigned>(second));
  const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string expected = "$6$";
  for (int i = 0; i < 16; ++i) expected += alphabet[static_cast<std::size_t>(std::rand() % 62)];
  EXPECT_EQ(salt, expected + "$");

  std::set<std::string> salts;
  for (int i = 0; i < 1000; ++i) salts.insert(generateSecureSalt());
  EXPECT_EQ(salts.size(), 1000U);
  EXPECT_THAT(salts, testing::Each(MatchesRegex("\\$6\\$[0-9a-zA-Z/.]{16}\\$")));

  EXPECT_EQ(generateHash(nullptr, salt), "");
  EXPECT_THAT(generateHash("secret", "$6$a:b$"), MatchesRegex("|\\*.*"));
}

// libcrypt is loaded at the first hash; what prevents that once does not the next time.
TEST(Password, NoHashWithoutTheLibrary) {
  {
    const DescriptorLimit none(0);
    EXPECT_EQ(generateHash("secret", "$6$abc$"), "");
    EXPECT_TRUE(logged(kError,
                       "Failed to load library: libcrypt.so.1: cannot open shared object file: "
                       "Too many open files"));
  }
  EXPECT_NE(generateHash("secret", "$6$abc$"), "");
}

TEST(Password, IsLockedByTheProgram) {
  const std::string program = "/usr/bin/passwd";
  fs::remove(program);
  EXPECT_FALSE(lockPassword("alice"));
  writeFile(program, "#!/bin/sh\nprintf '%s|' \"$@\" >>/tmp/calls\n[ \"$2\" != carol ]\n");
  fs::permissions(program, fs::perms::all);
  EXPECT_TRUE(lockPassword("alice"));
  EXPECT_TRUE(unlockPassword("b o;b"));
  EXPECT_FALSE(unlockPassword("carol"));
  EXPECT_FALSE(lockPassword(std::string("alice\0x", 7)));
  EXPECT_EQ(readFile("/tmp/calls"), "-l|alice|-u|b o;b|-u|carol|");
}

TEST(Adopted, IsWhatTheFileSays) {
  const std::string path = "/etc/persistent/vexo_avclient.conf";
  // The result, and what has become of `value`.
  const auto read = [&](const std::string& text, bool value) {
    if (!text.empty()) writeFile(path, text);
    return std::pair(adopted(value), value);
  };
  EXPECT_EQ(read("", true), std::pair(false, true));  // no such file
  fs::create_directories("/etc/persistent");
  EXPECT_EQ(read("{\"adopted\":true}", false), std::pair(true, true));
  EXPECT_EQ(read("{\"adopted\":false}", true), std::pair(true, false));
  EXPECT_EQ(read("{\"adopted\":\"no\"}", true), std::pair(true, true));
  EXPECT_EQ(read("[1]", true), std::pair(true, true));
  EXPECT_EQ(read("{", true), std::pair(false, true));
  EXPECT_TRUE(logged(kError, "Malformed or too deeply nested JSON in \"" + path + "\""));
}

// ---- messages ----

std::uint64_t idOf(const Variant& message) {
  std::uint64_t id = 0;
  EXPECT_TRUE(message["id"].read(id));
  return id;
}

TEST(Message, KeepsFieldsOfTheRightTypeOnly) {
  ValidateAuthToken message;
  const auto start = static_cast<std::uint32_t>(nowNs());
  message.NormalizeFields();
  EXPECT_LT(static_cast<std::uint32_t>(idOf(message)) - start, 2'000'000'000U);
  EXPECT_EQ(idOf(message) >> 48, static_cast<std::uint64_t>(getpid()) & 0xFFFF);
  timeval time{};
  EXPECT_TRUE(message["timeStamp"].read(time));
  EXPECT_LE(now().tv_sec - time.tv_sec, 3600);
  const std::string defaults =
      R"({"from":"","to":"","functionName":"ValidateAuthToken","queueIfDestUnavailable":true,)"
      R"("responseExpected":true,"authToken":"","transactionId":-1,"isBroadcast":false})";
  Variant expected;
  ASSERT_TRUE(Variant::fromJson(defaults, expected));
  expected["timeStamp"] = time;
  expected["id"] = idOf(message);
  EXPECT_EQ(message, expected);

  for (const char* key : {"from", "queueIfDestUnavailable", "transactionId"}) message[key] = 0.5;
  const Variant::Map kept = {{"isBroadcast", true}, {"to", "x"}, {"authToken", "t"}, {"id", 5}};
  for (const auto& [key, value] : kept) expected[key] = message[key] = value;
  BaseMessage& base = message;
  base.NormalizeFields();
  EXPECT_EQ(message, expected);
}

TEST(Message, IdsAreExtendedBySign) {
  for (bool saw[2] = {}; !saw[0] || !saw[1];) {  // the sign changes every 2.1 s
    BaseMessage message;
    message.NormalizeFields();
    const auto low = static_cast<std::int32_t>(idOf(message));
    ASSERT_EQ(idOf(message) >> 32 & 0xFFFF, low < 0 ? 0xFFFFU : 0U);
    saw[low < 0 ? 1 : 0] = true;
  }
}

// ---- the exchange with a daemon ----

class Daemon {
 public:
  explicit Daemon(const Strings& options) {
    runner.setExe(VEXO_BINARY_DIR "/platform/host/access_daemon").setArgs(options).setOut(&output);
    EXPECT_TRUE(runner.start());
    const auto isReady = [this] { return runner.service() && !output.empty(); };
    EXPECT_TRUE(eventually(isReady));
  }

 private:
  std::vector<char> output;
  SysExec runner;
};

TEST(Token, IsTheDaemonsToJudge) {
  const struct {
    Strings options;
    const char* result;
  } rows[] = {{{"--accept", "other", "--accept", "go\"od"}, "0 yes"},
              {{"--accept", "good"}, "0 no"},
              {{"--delay", "100", "--accept", "go\"od"}, "0 yes"},
              {{"--nonsense"}, "-9000 no"},
              {{"--close"}, "-9000 no"}};
  const InterruptingSignal alarm(SIGALRM);  // signals end no wait
  const itimerval never{};
  const itimerval often{{0, 5000}, {0, 5000}};
  for (const auto& row : rows) {
    const Daemon daemon(row.options);
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(verdict(authenticateToken, "go\"od"), row.result);
    setitimer(ITIMER_REAL, &never, nullptr);
  }
  const std::string lost = "Error on waiting responses received";
  EXPECT_TRUE(logged(kError, lost, 0) && logged(kError, lost, 0));
}

TEST(Token, ThatIsNoneIsNotSent) {
  EXPECT_EQ(verdict(authenticateToken, ""), "-5 no");
  for (const std::string& token : {std::string("\xFF"), std::string(1 << 20, 'x')}) {
    EXPECT_EQ(verdict(authenticateToken, token), "-9000 no");
    EXPECT_TRUE(logged(kError, "Unable to send request", 0));
  }
}

// The waits cannot be made shorter: these two take 5 s.
TEST(Token, NobodyThere) {
  EXPECT_EQ(verdict(authenticateToken, "good"), "-9000 no");
  EXPECT_TRUE(logged(kError, "Error on waiting requests sent", 0));
}

TEST(Token, AnsweredTooLate) {
  const Daemon daemon({"--delay", "3600000", "--accept", "good"});
  EXPECT_EQ(verdict(authenticateToken, "good"), "-9000 no");
  EXPECT_TRUE(logged(kError, "Error on waiting responses received", 0));
}

TEST(IpcHandler, RefusesWhatItCannotSend) {
  const Variant request = Variant::Map{{"id", 1}};
  BlockingIpcHandler handler("one");
  EXPECT_FALSE(handler.sendRequest(request, "nobody") || handler.waitAllRequestsSent(0));
  EXPECT_TRUE(handler.init());
  EXPECT_FALSE(BlockingIpcHandler("one").init() || BlockingIpcHandler("").init() ||
               BlockingIpcHandler(std::string(200, 'x')).init());
  EXPECT_FALSE(handler.sendRequest(Variant::Map{{"id", -1}}, "nobody"));
  EXPECT_FALSE(handler.sendRequest(Variant::Map{{"id", 1}, {"time", timeval{}}}, "nobody"));
  EXPECT_TRUE(handler.waitAllRequestsSent(0) && handler.waitAllResponsesReceived(0));
  EXPECT_TRUE(handler.sendRequest(request, "nobody"));
  EXPECT_FALSE(handler.sendRequest(request, "nobody"));  // the id again
}

TEST(IpcHandler, KeepsRequestsUntilTheirDestinationsAreThere) {
  BlockingIpcHandler handler("one");
  ASSERT_TRUE(handler.init());
  const auto send = [&](std::uint64_t id, const std::string& to, bool expectsReply) {
    ValidateAuthToken request;
    request["id"] = id;
    request["responseExpected"] = expectsReply;
    request.NormalizeFields();
    EXPECT_TRUE(handler.sendRequest(request, to));
  };
  send(1, "first", true);
  send(2, "second", true);
  send(3, "second", false);
  const Daemon second({"--name", "second"});
  EXPECT_FALSE(handler.waitAllRequestsSent(0));
  const Daemon first({"--name", "first", "--accept", ""});
  EXPECT_TRUE(handler.waitAllRequestsSent(60'000) && handler.waitAllResponsesReceived(60'000));
  const int expected[] = {-1, 0, 1, -1};
  for (std::uint64_t id = 0; id < 4; ++id) EXPECT_EQ(handler.getStatus(id), expected[id]) << id;
}

}  // namespace
}  // namespace vexo::utils
