#include "vexo/variant/Variant.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
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

using test::kError;
using test::logged;
using Type = Variant::Type;

constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
constexpr auto kMax = std::numeric_limits<std::int64_t>::max();

// The letter when the value can be read as a T, else ""; a refused read leaves its argument alone.
template <typename T>
std::string readable(const Variant& value, const T& before, const char* letter) {
  T out = before;
  if (value.read(out)) {
    EXPECT_EQ(value, Variant(out));
    return letter;
  }
  EXPECT_EQ(Variant(out), Variant(before));
  return "";
}

std::string readableAs(const Variant& value) {
  return readable(value, true, "b") + readable(value, std::int64_t{-7}, "s") +
         readable(value, std::uint64_t{7}, "u") + readable(value, 7.5, "d") +
         readable(value, std::string("before"), "S") + readable(value, timeval{7, 7}, "t") +
         readable(value, Variant::List{7}, "L") + readable(value, Variant::Map{{"k", 7}}, "M");
}

TEST(Variant, TakesTypeFromTheArgumentAndIsReadAsNothingElse) {
  const struct {
    Type type;
    const char* readAs;
    std::vector<Variant> values;
  } kCases[] = {
      {Type::Null, "", {Variant(), nullptr}},
      {Type::Bool, "b", {true, false}},
      {Type::Signed, "su", {0, 1L, kMax}},
      {Type::Signed, "s", {-1, static_cast<signed char>(-1), kMin}},
      {Type::Unsigned, "su", {0u, std::uint8_t{255}, 1UL}},
      {Type::Unsigned, "u", {1ULL << 63, ~0ULL}},
      {Type::Double, "d", {1.0, 0.5f}},
      {Type::String, "S", {"", std::string("1")}},
      {Type::Timeval, "t", {timeval{1, 2}, timeval{}}},
      {Type::List, "L", {Variant::List{}, Variant::List{1, "two"}}},
      {Type::Map, "M", {Variant::Map{}, Variant::Map{{"sec", 1}, {"usec", 2}}}},
  };
  for (const auto& c : kCases) {
    for (const Variant& value : c.values) {
      SCOPED_TRACE(value.toJson());
      EXPECT_EQ(value.type(), c.type);
      EXPECT_EQ(readableAs(value), c.readAs);
    }
  }
  static_assert(!std::is_constructible_v<Variant, char>);
  static_assert(!std::is_constructible_v<Variant, int*>);
  static_assert(!std::is_constructible_v<Variant, Type>);
  static_assert(std::is_nothrow_move_constructible_v<Variant>);
}

TEST(Variant, ComparesIntegersByValueAndTheRestByTypeToo) {
  EXPECT_EQ(Variant(5), Variant(5u));
  EXPECT_NE(Variant(-1), Variant(~0ULL));
  EXPECT_NE(Variant(1), Variant(1.0));
  EXPECT_NE(Variant(timeval{1, 2}), Variant(timeval{1, 3}));
  EXPECT_EQ((Variant::Map{{"a", Variant::List{1, nullptr}}}),
            (Variant::Map{{"a", Variant::List{1u, nullptr}}}));
}

TEST(Variant, IndexingMakesMapsOnlyWhereItMayWrite) {
  Variant value;
  const Variant& view = value;
  EXPECT_EQ(view["a"]["b"], Variant());
  EXPECT_EQ(value.type(), Type::Null);
  value["a"]["b"] = 1;
  EXPECT_EQ(value, (Variant::Map{{"a", Variant::Map{{"b", 1}}}}));
  EXPECT_EQ(view["missing"]["b"], Variant());
  EXPECT_FALSE(value.HasKey("missing"));
  EXPECT_EQ(value["made"].type(), Type::Null);
  EXPECT_TRUE(value.HasKey("made"));

  value = Variant::Map{{"a", Variant::Map{{"b", 1}}}};
  value = value["a"];  // a part of itself
  EXPECT_EQ(value, (Variant::Map{{"b", 1}}));
  value["b"] = "text";
  EXPECT_FALSE(view["b"].HasKey("c"));
  value["b"]["c"] = true;
  EXPECT_EQ(value.toJson(), R"({"b":{"c":true}})");
}

TEST(Json, KeepsTypesAndEveryBitOfIntegers) {
  for (const std::string text :
       {"null", "true", "0", "18446744073709551615", "-9223372036854775808", "0.1", "1.0",
        "1.8446744073709552e+19", R"("a\"\\\u0000\né")", "[]", R"([1,[{}],{"a":[2]},3])",
        R"({"a":[],"b":{"c":{},"d":null},"e":-1})"}) {
    Variant value;
    EXPECT_TRUE(Variant::fromJson(text, value)) << text;
    EXPECT_EQ(value.toJson(), text);
  }
  Variant value;
  EXPECT_TRUE(Variant::fromJson(" [0,-1,18446744073709551616]\n", value));
  EXPECT_EQ(value, (Variant::List{0, -1, 18446744073709551616.0}));
  EXPECT_TRUE(Variant::fromJson(R"({"a":{"b":1},"a":{"c":2}})", value));
  EXPECT_EQ(value.toJson(), R"({"a":{"c":2}})");
  // What JSON has no words for.
  value = Variant::List{timeval{1, 999999}, std::nan(""), HUGE_VAL, "a\xff"};
  EXPECT_EQ(value.toJson(), "[{\"sec\":1,\"usec\":999999},null,null,\"a\xef\xbf\xbd\"]");
}

TEST(Json, RefusesWhatIsMalformedOrTooDeep) {
  using namespace std::string_literals;
  const std::string deepest(Variant::kMaxDepth, '[');
  const std::string end(Variant::kMaxDepth, ']');
  Variant value;
  EXPECT_TRUE(Variant::fromJson(deepest + "1" + end, value));
  EXPECT_EQ(value.toJson(), deepest + "1" + end);

  std::string lists = deepest;
  lists.append("[]").append(end);
  std::string maps;
  for (int i = 0; i < 100000; ++i) maps += "{\"\":";
  value = "before";
  for (const std::string& text :
       {""s, "{"s, "[1,]"s, "{\"a\" 1}"s, "{1:1}"s, "1 2"s, "\"\xff\""s, "1e999"s, "nul"s, "[1\0]"s,
        lists, std::string(1000000, '['), maps}) {
    EXPECT_FALSE(Variant::fromJson(text, value)) << text.substr(0, 80);
    EXPECT_EQ(value, Variant("before"));
  }
}

class VariantFile : public testing::Test {
 protected:
  void write(const std::string& text) { test::writeFile(path, text); }
  void TearDown() override { std::filesystem::remove(path); }

  const std::string path = testing::TempDir() + "variant_test_file";
  Variant value = "before";
};

TEST_F(VariantFile, FailureIsLoggedOnceUnlessThereIsNoFile) {
  for (const auto read : {Variant::FromJSONFile, Variant::FromKVPFile}) {
    EXPECT_FALSE(read(path, value));
    EXPECT_FALSE(read(testing::TempDir(), value));
    EXPECT_TRUE(logged(kError, "Failed to read \"" + testing::TempDir() + "\"", EISDIR));
    EXPECT_FALSE(read("/dev/null/x", value));
    EXPECT_TRUE(logged(kError, "Failed to open \"/dev/null/x\"", ENOTDIR));
    EXPECT_FALSE(read("/dev/zero", value));  // has no end
    EXPECT_TRUE(logged(kError, "Refused to read \"/dev/zero\"", EFBIG));
  }
  write("{\"a\":1");
  EXPECT_FALSE(Variant::FromJSONFile(path, value));
  EXPECT_TRUE(logged(kError, "Malformed or too deeply nested JSON in \"" + path + "\"", 0));
  EXPECT_EQ(value, Variant("before"));
}

TEST_F(VariantFile, MayHaveOneMebibyte) {
  std::string text(1 << 20, ' ');
  text.front() = '7';
  write(text);
  EXPECT_TRUE(Variant::FromJSONFile(path, value));
  EXPECT_EQ(value, Variant(7));
  write(text + " ");
  EXPECT_FALSE(Variant::FromJSONFile(path, value));
  EXPECT_TRUE(logged(kError, "Refused to read \"" + path + "\"", EFBIG));
}

TEST_F(VariantFile, KeyValueLines) {
  const struct {
    const char* text;
    const char* json;
  } kCases[] = {
      {"", "{}"},
      {"oc_x=931\noc_y=978\noc_r=1040\n", R"({"oc_r":1040,"oc_x":931,"oc_y":978})"},
      {"a=1\r\n\r\nb=two\r\n", R"({"a":1,"b":"two"})"},
      {"no final=newline", R"({"no final":"newline"})"},
      {" \ta \t=\t b  c \t", R"({"a":"b  c"})"},
      {"a=b=c\nd==\n", R"({"a":"b=c","d":"="})"},
      {"# a=1\n  #b=2\nc=3 # d\n", R"({"c":"3 # d"})"},
      {"a=1\na=\n", R"({"a":""})"},
      {"no equals sign\n=no key\n = \n\n\n", "{}"},
      {"a=-5\nb=-0\nc=007\n", R"({"a":-5,"b":0,"c":7})"},
      {"a=18446744073709551615\nb=-9223372036854775808",
       R"({"a":18446744073709551615,"b":-9223372036854775808})"},
      {"a=18446744073709551616\nb=-9223372036854775809",
       R"({"a":"18446744073709551616","b":"-9223372036854775809"})"},
      {"a=+1\nb=1.5\nc=0x10\nd=1e3\ne=- 1\nf=-\ng=1 2",
       R"({"a":"+1","b":"1.5","c":"0x10","d":"1e3","e":"- 1","f":"-","g":"1 2"})"},
  };
  for (const auto& c : kCases) {
    write(c.text);
    EXPECT_TRUE(Variant::FromKVPFile(path, value)) << c.text;
    EXPECT_EQ(value.toJson(), c.json);
  }
}

// CameraInfo is read once in a process, so that each of these looks at it in a child. Lines that
// the child logs go to its standard error as LEVEL:TEXT, which the parent matches.
class CameraInfoDeathTest : public VariantFile {
 protected:
  static CameraInfo& infoOf(const char* file) {
    const auto print = [](void*, const host::LogRecord& line) {
      std::fprintf(stderr, "%d:%s\n", line.level, line.message);
    };
    host::setLogSink(print, nullptr);
    file != nullptr ? setenv("VEXO_CAMERA_INFO", file, 1) : unsetenv("VEXO_CAMERA_INFO");
    return CameraInfo::instance();
  }
};

TEST_F(CameraInfoDeathTest, WithoutAFileIsNull) {
  const auto check = [](const char* file) {
    CameraInfo& info = infoOf(file);
    const bool same = &info == &CameraInfo::instance();
    std::_Exit(same && info.description() == Variant() && !info.HasKey("name") ? 0 : 1);
  };
  const testing::ExitedWithCode ok(0);
  EXPECT_EXIT(check(nullptr), ok, "^4:No camera description: VEXO_CAMERA_INFO is not set\n$");
  EXPECT_EXIT(check(path.c_str()), ok, "^4:No camera description: \".*\" cannot be read\n$");
}

TEST_F(CameraInfoDeathTest, ReadsAndStores) {
  write(R"({"s":"x","u":15141,"t":true,"one":1,"zero":0,"m":{"k":[]}})");
  const auto check = [this] {
    CameraInfo& info = infoOf(path.c_str());
    const bool found = info.getString("s") == "x" && info.getUnsigned("u") == 0x3b25 &&
                       info.getBool("t") && info.getBool("one") && !info.getBool("zero") &&
                       info.getMap("m").HasKey("k") && info.getStringOrEmpty("s") == "x";
    const bool stored = info.getStringOrEmpty("u").empty() && info.getString("u").empty() &&
                        info.getStringOrEmpty("new").empty() && info.getString("new").empty();
    std::_Exit(found && stored ? 0 : 1);
  };
  EXPECT_EXIT(check(), testing::ExitedWithCode(0), "^$");
}

TEST_F(CameraInfoDeathTest, RequiredKeysCrash) {
  const struct {
    void (*get)(const CameraInfo&);
    std::vector<std::string> wrongValues;
  } kReaders[] = {
      {[](const CameraInfo& info) { info.getString("k"); }, {"1", "null"}},
      {[](const CameraInfo& info) { info.getUnsigned("k"); }, {"-1", "1.0", "true"}},
      {[](const CameraInfo& info) { info.getBool("k"); }, {"256", "-1", "\"1\""}},
      {[](const CameraInfo& info) { info.getMap("k"); }, {"[]"}},
  };
  for (const auto& reader : kReaders) {
    const auto expectCrash = [&](const std::string& json, const char* line) {
      write(json);
      EXPECT_EXIT(reader.get(infoOf(path.c_str())), testing::KilledBySignal(SIGABRT), line) << json;
    };
    expectCrash("[]", "^3:Invalid variant type detected\n");
    expectCrash("{\"K\":1}", "^3:Key \"k\" not available\n");
    for (const std::string& wrong : reader.wrongValues) {
      expectCrash("{\"k\":" + wrong + "}", "^3:Key \"k\" has a different type than expected\n");
    }
  }
}

TEST(Boards, HaveTheKeysThatAreRequired) {
  std::size_t count = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(VEXO_BINARY_DIR "/platform/host/boards")) {
    SCOPED_TRACE(file.path());
    Variant board;
    ASSERT_TRUE(Variant::FromJSONFile(file.path(), board));
    const std::string id = file.path().stem();
    EXPECT_TRUE(id == "other" || board["sysid"] == std::stoull(id, nullptr, 16));
    std::string hwaddr;
    EXPECT_TRUE(board["hwaddr"].read(hwaddr));
    EXPECT_THAT(hwaddr, testing::MatchesRegex("[0-9a-f]{12}"));
    EXPECT_EQ(board["name"].type(), Type::String);
    EXPECT_EQ(board["hwrev"].type(), Type::Unsigned);
    EXPECT_TRUE(board["feature_ubifscfg"] == 0 || board["feature_ubifscfg"] == 1);
    EXPECT_EQ(board["features"].type(), Type::Map);
    const Variant& lens = board["features"]["hotplug"]["video0"]["lensmodel"];
    EXPECT_EQ(lens.type(), id == "3B20" || id == "3B23" ? Type::String : Type::Null);
    ++count;
  }
  EXPECT_EQ(count, 20u);
}

}  // namespace

}  // namespace vexo::variant
