// The built program as a process, with fake host tools first on PATH.
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "cli/usage.h"
#include "process/command_runner.h"
#include "support/tables.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

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
  std::size_t runs = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.atPrompt) + std::to_string(c.typed));
    // On a terminal of its own, as from an interactive shell: it leads its session and
    // is the foreground group, so a typed "\x03" reaches it and every child it started.
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
      ::execl(ORVANE_BINARY, ORVANE_BINARY, "-p", source.path().c_str(), "-o", output.path().c_str(), nullptr);
      ::_exit(127);
    }
    std::string seen;
    for (const auto end = Clock::now() + seconds(20); !seen.ends_with("Proceed? (yes/no): ");) {
      ASSERT_LT(Clock::now(), end) << seen;
      seen += take(master, 50);
    }
    const std::size_t converting = tools.calls("qemu-img").size() + 1;
    if (!c.atPrompt) (void)!::write(master, "yes\n", 4);
    for (int i = 0; i < 400 && !c.atPrompt && tools.calls("qemu-img").size() < converting; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const auto signalled = Clock::now();
    c.typed ? (void)!::write(master, "\x03", 1) : (void)::kill(pid, c.signo);
    int status = 0;
    // By the clock: once the terminal has closed, take() no longer waits.
    while (::waitpid(pid, &status, WNOHANG) == 0 && Clock::now() - signalled < seconds(10)) seen += take(master, 50);
    EXPECT_LT(Clock::now() - signalled, seconds(4));
    seen += take(master, 50);  // what it wrote last
    // One still running is killed, and fails the case.
    if (::waitpid(pid, &status, WNOHANG) == 0) ::kill(pid, SIGKILL), ::waitpid(pid, &status, 0);
    ::close(master);
    EXPECT_EQ(128 + c.signo, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)) << seen;
    EXPECT_EQ(std::string::npos, seen.find("ERROR")) << seen;
    EXPECT_EQ(std::string::npos, seen.find("Rolling back"));
    EXPECT_TRUE(fs::is_empty(output.path()));
    const std::vector<std::string> records = nonBlankLines(readFile(kTestAppLog));
    ASSERT_EQ(++runs, records.size()) << "one outcome record a run";
    EXPECT_NE(std::string::npos, records.back().find(" vm=web01 result=interrupted source=vmware "));
    EXPECT_TRUE(records.back().ends_with(std::string(" reason=\"") + c.reason + "\"")) << records.back();
  }
  EXPECT_EQ(2u, tools.calls("qemu-img").size()) << "no converter runs after a prompt's signal";
}

}  // namespace
}  // namespace orvane::testing
