// The program vexo, as a user runs it.

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "log_ring.h"
#include "vexo_utils/exec.h"
#include "wait.h"

namespace vexo::utils {
namespace {

using namespace test;

constexpr char kTool[] = VEXO_BINARY_DIR "/tests/bin/vexo";

struct Row {
  std::string line;  // of a shell
  int status;
  std::string out;  // extended regular expressions for all of it
  std::string err = "";
};

class VexoTool : public testing::Test {
 protected:
  VexoTool() {
    const std::string build = VEXO_BINARY_DIR;
    const std::string path = build + "/tests/bin:" + build + "/tests:" + build + "/platform/host:";
    setenv("PATH", (path + getenv("PATH")).c_str(), 1);
    setenv("VEXO_CAMERA_INFO", (build + "/platform/host/boards/3B24.json").c_str(), 1);
    setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    std::filesystem::create_directories("/tmp/here");
  }

  static void expect(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.line);
      std::string out;
      std::string err;
      const int status = shellExec("cd /tmp/here; " + row.line, nullptr, &out, &err, 60'000, 0, 0);
      EXPECT_EQ(status, row.status << 8);
      EXPECT_THAT(out, testing::MatchesRegex(row.out));
      EXPECT_THAT(err, testing::MatchesRegex(row.err));
    }
  }
};

const std::string kAny = "(.|\n)*";

TEST_F(VexoTool, TellsItsUsage) {
  const std::string names =
      "for name in $(vexo --help | sed -n 's/^  \\([a-z0-9]*\\) .*/\\1/p'); do ";
  expect({
      {"vexo", 0, "usage: vexo \\[-v\\] COMMAND.*\n  ps .*"},
      {names + "vexo $name --help | sed -n 1p; done | grep -c '^usage: vexo '", 0, "13\n"},
      {names + "vexo $name --nonsense 2>/dev/null </dev/null; echo $?; done | uniq", 0, "2\n"},
      {"vexo nonsense", 2, "", "vexo: no command 'nonsense'\n\"vexo --help\" tells more\n"},
      {"vexo check ipv4 1.2.3.4 x", 2, "", "vexo check: give .*\n\"vexo check --help\" .*"},
  });
}

TEST_F(VexoTool, RunsACommandUnderLimits) {
  const std::string after = " after [0-9.]+ s; ";
  expect({
      {"vexo run sh -c 'echo out; echo err >&2; exit 3'", 1, "out\n",
       "err\nvexo run: exited with 3" + after + "4 bytes of output, 4 on standard error\n"},
      {"printf 'b\na\n' | vexo run -i sort", 0, "a\nb\n", "vexo run: exited with 0" + after + ".*"},
      {"vexo run -t 50 sleep 1000", 1, "", "vexo run: killed: time is over" + after + ".*"},
      {"vexo run -o 9 yes", 1, kAny, "vexo run: killed: more output than its limit" + after + ".*"},
      {"vexo run -k -o 9 head -c 99999 /dev/zero | wc -c", 0, "9\n", ".* exited with 0 .*"},
      {"vexo run sh -c 'kill -9 $$'", 1, "", "vexo run: ended by signal 9 \\(Killed\\).*"},
      {"vexo run -i sh -c 'exec <&-; sleep 1000' </bin/sh", 1, "", "vexo run: killed: it has .*"},
      {"vexo run nonesuch", 1, "", "vexo run: no program 'nonesuch'\n"},
      {"vexo run -t 0 true", 2, "", "vexo run: .*"},
  });
}

TEST_F(VexoTool, AnswersAndConverts) {
  const std::string zoneFile = "file  /usr/share/zoneinfo/Europe/Berlin\n";
  expect({
      {"vexo check ipv4 1.2.3.4", 0, "valid\n"},
      {"vexo check ipv4 0.0.0.0 || vexo check ipv4-or-zero 0.0.0.0", 0, "not valid\nvalid\n"},
      {"echo 'pass word' | vexo check psk", 0, "valid\n"},
      {"vexo color 000000 FFFFFF | tail -n 1", 0, "difference 100.00\n"},
      {"vexo color yuv:158,39,256 000000", 2, "", "vexo color: .*"},
      {"printf 'ab\\377' | vexo b64", 0, "YWL/\n"},
      {"head -c 9999 /dev/urandom >r; vexo b64 <r | fold | vexo b64 -d | cmp - r", 0, ""},
      {"echo 'a*==' | vexo b64 -d", 1, "", "vexo b64: this is no Base64\n"},
      {"vexo hex </dev/zero", 1, "", "vexo hex: more than 64 MiB\n.*"},
      {"printf 'a\\0\\377' | vexo hex -s :", 0, "61:00:ff\n"},
      {"echo 61:62 | vexo hex -d", 0, "ab"},
      {"vexo tz Europe/Berlin && vexo tz | tail -n 1", 0, zoneFile + "(rule  CET-1CEST,.*\n){2}"},
      {"vexo tz ../../../etc/passwd", 1, "", "vexo tz: Illegal path: .*vexo tz: the zone .*"},
      {"vexo ps 'no[n]esuch'", 1, ""},
      {"ln -sf /bin/sleep dozer; ./dozer 1000 & until vexo ps dozer; do :; done; kill $!", 0,
       " +[0-9]+ ./dozer 1000\n"},
      {"vexo check mac x >/dev/full", 1, "", "vexo check: cannot write to standard output\n"},
  });
}

TEST_F(VexoTool, ReadsAndScalesSounds) {
  const std::string header =
      "RIFF\\050\\0\\0\\0WAVEfmt \\020\\0\\0\\0\\001\\0\\001\\0\\100\\037\\0\\0\\200\\076\\0\\0"
      "\\002\\0\\020\\0data\\004\\0\\0\\0";
  expect({
      {"printf '" + header + "\\350\\003\\030\\374' >a.wav; vexo wav info a.wav", 0,
       "channels  1\nrate      8000 Hz\nsamples   4 bytes\nlength    0.000 s\n"},
      {"vexo wav volume a.wav 50 b.wav && vexo wav volume a.wav 10; tail -qc 4 b.wav a.wav | "
       "vexo hex; ls",
       0, "f4010cfe64009cff\na.wav\nb.wav\n"},
      {"vexo wav info /dev/null", 1, "",
       "vexo wav: Failed to read WAV header\nvexo wav: cannot read /dev/null\n"},
  });
}

TEST_F(VexoTool, TellsHowTheCameraHangs) {
  const std::string decided = " +0 +-1020 +10  wall0 +only B or C above strict: its sign\n";
  expect({
      {"fake_camera make && fake_camera turn ceiling && vexo attitude", 0, "ceiling\n"},
      {"vexo attitude --explain --chip lis2dw12@18", 0, " .* ceiling  A above strict, .*\n"},
      {"vexo attitude --explain -990 0 260 0 -1020 10 | tail -n 1", 0, decided},
      {"vexo attitude --explain 1 2", 2, "", "vexo attitude: give readings .*"},
      {"VEXO_CAMERA_INFO= vexo attitude", 1, "", "vexo attitude: no description of a camera .*"},
      {"vexo fisheye | sed -n '1p;10p;19p'", 0,
       "window 720x720 at 280,0 of 1280x720\n\\.{14}o{36}\\.{14}\n"
       "\\.{14}\\++o+\\++\\.{14}\n"},
  });
}

TEST_F(VexoTool, ShowsCrashDumps) {
  const std::string when = " +20[-0-9]+ [:0-9]+";
  expect({
      {"crash_child camera null 2>/dev/null; vexo crash", 0,
       "camera/0000000001" + when + "  11 Segmentation fault\n"},
      {"vexo crash -d " VEXO_BINARY_DIR " show camera", 0,
       "/tmp/crashdumps/camera/0000000001/stack" + when + "\n" +
           "(signal 11 .SIGSEGV.\n.*=> #.* at [^ ]*crash_child.cpp:[0-9]+\n.*|SIGNAL: "
           "0x0000000B\n" +
           kAny + ")",
       kAny},
      {"vexo crash -r show camera/0000000001 | sed -n 2,4p", 0,
       "SIGNAL: 0x0000000B\n\n--- STACK TRACE ---\n"},
      {"vexo crash show nobody", 1, "", "vexo crash: no crash of nobody\n"},
  });
}

TEST_F(VexoTool, WatchesUntilItHasSeenEnough) {
  expect(
      {{"mkdir d; vexo watch -n 3 d 2>told & until [ -s told ]; do sleep 0.01; done; "
        "echo x >d/file; wait $!",
        0, "create +d/file\nmodify +d/file\nwritten +d/file\n"}});
}

TEST_F(VexoTool, FollowsTheLogUntilItsEnd) {
  expect({{"vexo -v logread", 1, "", "[0-9.]+ error vexo_utils .*logread.cpp.* Failed to get .*"}});
  auto ring = std::make_unique<LogRing>(4096, 4000, 0);
  std::vector<char> out;
  SysExec tool;
  tool.setExe(kTool).setArgs({"logread", "-f"}).setOut(&out);
  const auto shows = [&](const std::string& text) {
    return eventually(
        [&] { return !tool.service() || text == std::string(out.begin(), out.end()); });
  };
  ring->write("");
  ring->write("first\n");
  ring->write("second");
  ASSERT_TRUE(tool.start());
  EXPECT_TRUE(shows("first\nsecond\n"));
  ring->write("third\n");
  EXPECT_TRUE(shows("first\nsecond\nthird\n"));
  EXPECT_EQ(tool.getState(), 1);
  ring.reset();
  EXPECT_TRUE(eventually([&] { return !tool.service() || tool.getState() != 1; }));
  EXPECT_EQ(WEXITSTATUS(tool.getStatus()), 1);
}

}  // namespace
}  // namespace vexo::utils
