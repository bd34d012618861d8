// The built program as a process, with fake host tools first on PATH.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <thread>

#include "cli/usage.h"
#include "process/command_runner.h"
#include "support/console_lines.h"
#include "support/fake_tools.h"
#include "support/private_log_dir.h"
#include "support/pty_program.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

TEST(Program, HelpAndUnknownWordsAnswerWithTheUsage) {
  if (const std::string why = isolateLogDir(); !why.empty()) GTEST_SKIP() << why;
  fs::remove(kTestAppLog);
  const CommandResult help = runCommand({ORVANE_BINARY, "-h", "--bogus"});
  EXPECT_EQ(0, help.exitCode);
  EXPECT_EQ(usageText(), help.stdoutText + help.stderrText);
  const CommandResult bad = runCommand({ORVANE_BINARY, "-p", "/x", "--path=/vm", "-h"});
  EXPECT_EQ(1, bad.exitCode);
  EXPECT_EQ("", bad.stdoutText);
  EXPECT_EQ("ERROR: Unknown option: --path=/vm\n\n" + usageText(),
            maskShape(bad.stderrText, "[dddd-dd-dd dd:dd:dd] ", ""));
  EXPECT_FALSE(fs::exists(kTestAppLog)) << "neither is a run";
}

// Ctrl-C typed at the terminal reaches the whole foreground group (the program and
// its converter); a supervisor's kill reaches the program alone. Either way, at the
// prompt or while a disk converts, the run ends at once as interrupted, with no
// rollback and no unfinished image left.
TEST(Program, SignalAtThePromptOrWhileConvertingEndsTheRunAtOnce) {
  if (const std::string why = isolateLogDir(); !why.empty()) GTEST_SKIP() << why;
  const struct {
    bool atPrompt, typed;
    int signo;
    const char* reason;
  } cases[] = {{true, true, SIGINT, "SIGINT (Ctrl-C)"},
               {true, false, SIGTERM, "SIGTERM"},
               {false, true, SIGINT, "SIGINT (Ctrl-C)"},
               {false, false, SIGINT, "SIGINT (Ctrl-C)"}};
  FakeTools tools;
  tools.add("virsh", "case $1 in dominfo) exit 1;; net-list) echo default;; esac");
  // Far longer than the test waits: only stopping the converter ends the run in time.
  tools.addRecording("qemu-img", "exec sleep 30");
  tools.add("virt-install", "exit 0");
  TempDir source("orvane-src"), output("orvane-out");
  fs::copy(ORVANE_SOURCE_DIR "/tests/conversion/vms/web01", source.path(),
           fs::copy_options::recursive);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.atPrompt) + std::to_string(c.typed));
    PtyProgram program({ORVANE_BINARY, "-p", source.path(), "-o", output.path()});
    ASSERT_TRUE(program.waitForOutput("Proceed? (yes/no): ", seconds(20))) << program.output();
    const std::size_t converting = tools.calls("qemu-img").size() + 1;
    if (!c.atPrompt) program.type("yes\n");
    for (int i = 0; i < 400 && !c.atPrompt && tools.calls("qemu-img").size() < converting; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const auto signalled = std::chrono::steady_clock::now();
    c.typed ? program.type("\x03") : (void)kill(program.pid(), c.signo);
    EXPECT_EQ(128 + c.signo, program.wait(seconds(10))) << program.output();
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, seconds(4));
    EXPECT_EQ(std::string::npos, program.output().find("ERROR")) << program.output();
    EXPECT_EQ(std::string::npos, program.output().find("Rolling back"));
    EXPECT_TRUE(fs::is_empty(output.path()));
    const std::string record = lastLineOf(kTestAppLog);
    EXPECT_NE(std::string::npos, record.find(" vm=web01 result=interrupted source=vmware "));
    EXPECT_TRUE(record.ends_with(std::string(" reason=\"") + c.reason + "\"")) << record;
  }
  EXPECT_EQ(2u, tools.calls("qemu-img").size()) << "no converter runs after a prompt's signal";
}

}  // namespace
}  // namespace orvane::testing
