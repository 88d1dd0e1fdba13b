#include "vexo/variant/Variant.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <ostream>

#include <gmock/gmock.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo/host/log_sink.h"
#include "vexo/variant/CameraInfo.h"

namespace vexo::variant {

void PrintTo(const Variant& value, std::ostream* out) {
  *out << value.toJson();
}

namespace {

using namespace test;
using namespace std::string_literals;

// The letter when the value can be read as a T; a refused read leaves its argument alone.
template <typename T>
std::string readable(const Variant& value, T out, const char* letter) {
  const Variant before(out);
  const bool done = value.read(out);
  EXPECT_EQ(Variant(out), done ? value : before);
  return done ? letter : "";
}

TEST(Variant, TakesTypeFromTheArgumentAndIsReadAsNothingElse) {
  const std::pair<const char*, std::vector<Variant>> rows[] = {
      {"", {Variant(), nullptr}},
      {"b", {true, false}},
      {"su", {0, INT64_MAX, 0u, std::uint8_t{255}}},
      {"s", {-1, static_cast<signed char>(-1), INT64_MIN}},
      {"u", {1ULL << 63, UINT64_MAX}},
      {"d", {1.0, 0.5f}},
      {"S", {"", "1"s}},
      {"t", {timeval{1, 2}}},
      {"L", {Variant::List{}, Variant::List{1, "two"}}},
      {"M", {Variant::Map{{"sec", 1}, {"usec", 2}}}},
  };
  for (const auto& [letters, values] : rows) {
    for (const Variant& value : values) {
      EXPECT_EQ(readable(value, true, "b") + readable(value, std::int64_t{-7}, "s") +
                    readable(value, std::uint64_t{7}, "u") + readable(value, 7.5, "d") +
                    readable(value, "before"s, "S") + readable(value, timeval{7, 7}, "t") +
                    readable(value, Variant::List{7}, "L") +
                    readable(value, Variant::Map{{"k", 7}}, "M"),
                letters)
          << value.toJson();
    }
  }
  EXPECT_EQ(Variant(5), Variant(5u));
  EXPECT_NE(Variant(-1), Variant(UINT64_MAX));
  EXPECT_NE(Variant(timeval{1, 2}), Variant(timeval{1, 3}));
}

TEST(Variant, IndexingMakesMapsOnlyWhereItMayWrite) {
  Variant value;
  const Variant& view = value;
  EXPECT_EQ(view["a"]["b"], Variant());
  EXPECT_EQ(value, Variant());
  value["a"]["b"] = 1;
  EXPECT_EQ(value.toJson(), R"({"a":{"b":1}})");
  value = value["a"];  // a part of itself
  value["b"]["c"] = true;
  EXPECT_EQ(value.toJson(), R"({"b":{"c":true}})");
}

TEST(Variant, JsonKeepsTypesAndEveryBitOfIntegers) {
  const std::string open(Variant::kMaxDepth, '[');
  const std::string close(Variant::kMaxDepth, ']');
  Variant value;
  for (const std::string& text :
       {R"([true,0,18446744073709551615,-9223372036854775808,0.1,1.0,"a\"\\\u0000\né"])"s,
        R"([1,[{}],{"a":[2],"b":{"c":{},"d":null},"e":-1},3])"s, open + close}) {
    EXPECT_TRUE(Variant::fromJson(text, value));
    EXPECT_EQ(value.toJson(), text);
  }
  EXPECT_TRUE(Variant::fromJson(R"([18446744073709551616,{"a":{"b":1},"a":2}])", value));
  EXPECT_EQ(value, (Variant::List{18446744073709551616.0, Variant::Map{{"a", 2}}}));
  value = Variant::List{timeval{1, 999999}, std::nan(""), HUGE_VAL, "a\xff"};
  EXPECT_EQ(value.toJson(), "[{\"sec\":1,\"usec\":999999},null,null,\"a\xef\xbf\xbd\"]");
  value = "before";
  const std::string tooDeep = "[" + open + close + "]";
  for (const std::string& text : {""s, "[1,]"s, "1 2"s, "\"\xff\""s, "1e999"s, "[1\0]"s, tooDeep,
                                  std::string(1'000'000, '[')}) {
    EXPECT_FALSE(Variant::fromJson(text, value)) << text.substr(0, 80);
    EXPECT_EQ(value, Variant("before"));
  }
}

constexpr char kPath[] = "/tmp/variant";

TEST(VariantFile, FailureIsLoggedOnceUnlessThereIsNoFile) {
  Variant value = "before";
  for (const char* file : {"/tmp/missing", "/tmp", "/dev/null/x", "/dev/zero"}) {
    EXPECT_FALSE(Variant::FromJSONFile(file, value));
  }
  EXPECT_TRUE(logged(kError, "Failed to read \"/tmp\"", EISDIR));
  EXPECT_TRUE(logged(kError, "Failed to open \"/dev/null/x\"", ENOTDIR));
  EXPECT_TRUE(logged(kError, "Refused to read \"/dev/zero\"", EFBIG));
  writeFile(kPath, "7" + std::string(1 << 20, ' '));  // one byte too many
  EXPECT_TRUE(
      refused(Variant::FromKVPFile(kPath, value), "Refused to read \"/tmp/variant\"", EFBIG));
  EXPECT_EQ(value, Variant("before"));
  std::filesystem::resize_file(kPath, 1 << 20);
  EXPECT_TRUE(Variant::FromJSONFile(kPath, value));
  writeFile(kPath, "{\"a\":1");
  EXPECT_TRUE(refused(Variant::FromJSONFile(kPath, value),
                      "Malformed or too deeply nested JSON in \"/tmp/variant\"", 0));
}

TEST(VariantFile, KeyValueLines) {
  Variant value;
  writeFile(
      kPath,
      "\r\n \ta b \t=\t two  words \r\n  # c=1\nno equals sign\n=no key\n = \n"
      "d=b=c\ne==\nf=1\nf=\ng=3 # g\nh=18446744073709551615\ni=-9223372036854775808\n"
      "j=007\nk=18446744073709551616\nl=-9223372036854775809\nm=+1\nn=1.5\no=0x10\np=-\nq=-5");
  EXPECT_TRUE(Variant::FromKVPFile(kPath, value));
  EXPECT_EQ(value.toJson(), R"({"a b":"two  words","d":"b=c","e":"=","f":"","g":"3 # g",)"
                            R"("h":18446744073709551615,"i":-9223372036854775808,"j":7,)"
                            R"("k":"18446744073709551616","l":"-9223372036854775809",)"
                            R"("m":"+1","n":"1.5","o":"0x10","p":"-","q":-5})");
  writeFile(kPath, "");
  EXPECT_TRUE(Variant::FromKVPFile(kPath, value));
  EXPECT_EQ(value, Variant::Map());
}

TEST(CameraInfoDeathTest, EveryAnswer) {
  using Ask = bool (*)(CameraInfo&);
  const Ask hasAll = [](CameraInfo& info) {  // and stores the texts that are missing
    return info.getString("s") == "x" && info.getUnsigned("u") == 0x3b25 && info.getBool("t") &&
           info.getBool("one") && !info.getBool("zero") && info.getMap("m").HasKey("k") &&
           info.getStringOrEmpty("s") == "x" && info.getStringOrEmpty("u").empty() &&
           info.getString("u").empty() && info.getStringOrEmpty("new").empty();
  };
  const Ask isNull = [](CameraInfo& info) { return info.description() == Variant(); };
  const Ask getString = [](CameraInfo& info) { return info.getString("k").empty(); };
  const Ask getUnsigned = [](CameraInfo& info) { return info.getUnsigned("k") == 0; };
  const Ask getBool = [](CameraInfo& info) { return info.getBool("k"); };
  const Ask getMap = [](CameraInfo& info) { return info.getMap("k") == Variant(); };
  const char* const wrongType = "Key \"k\" has a different type than expected\n";
  const struct {
    const char* json;  // empty: no file
    Ask ask;
    bool crashes;
    const char* logged;
  } rows[] = {
      {R"({"s":"x","u":15141,"t":true,"one":1,"zero":0,"m":{"k":[]}})", hasAll, false, "^$"},
      {"", isNull, false, "No camera description: \"/none\" cannot be read\n"},
      {"[]", getString, true, "Invalid variant type detected\n"},
      {R"({"K":1})", getMap, true, "Key \"k\" not available\n"},
      {R"({"k":null})", getString, true, wrongType},
      {R"({"k":-1})", getUnsigned, true, wrongType},
      {R"({"k":256})", getBool, true, wrongType},
      {R"({"k":[]})", getMap, true, wrongType},
  };
  for (const auto& row : rows) {
    writeFile(kPath, row.json);
    const auto ask = [&row] {  // in a child: the file is read once in a process
      host::setLogSink(nullptr, nullptr);
      host::setLogLevel(kWarning);
      setenv("VEXO_CAMERA_INFO", *row.json != '\0' ? kPath : "/none", 1);
      std::_Exit(row.ask(CameraInfo::instance()) ? 0 : 1);
    };
    const auto asExpected = [&row](int status) {
      return row.crashes ? WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT : status == 0;
    };
    EXPECT_EXIT(ask(), asExpected, row.logged) << row.json;
  }
}

TEST(Boards, HaveTheKeysThatAreRequired) {
  using testing::ContainsRegex;
  std::size_t count = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(VEXO_BINARY_DIR "/platform/host/boards")) {
    const std::string id = file.path().stem();
    Variant board;
    ASSERT_TRUE(Variant::FromJSONFile(file.path(), board)) << id;
    EXPECT_TRUE(id == "other" || board["sysid"] == std::stoull(id, nullptr, 16)) << id;
    EXPECT_EQ(board["features"].HasKey("hotplug"), id == "3B20" || id == "3B23") << id;
    const std::string text = board.toJson();
    EXPECT_THAT(text, ContainsRegex(R"("feature_ubifscfg":[01],"features":\{)"));
    EXPECT_THAT(text, ContainsRegex(R"("hwaddr":"[0-9a-f]{12}","hwrev":[0-9]+,"name":"[^"]+")"));
    ++count;
  }
  EXPECT_EQ(count, 20u);
}

}  // namespace

}  // namespace vexo::variant
