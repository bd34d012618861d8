// The built program as a process, with fake host tools first on PATH.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

#include "cli/usage.h"
#include "process/command_runner.h"
#include "support/console_lines.h"
#include "support/fake_tools.h"
#include "support/private_log_dir.h"
#include "support/pty_program.h"
#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

// A virsh that knows a running libvirt with one domain, "db01", and records calls.
const char* kFakeVirsh = R"(
case "$1" in
  version|net-info) exit 0 ;;
  net-list) echo default ;;
  pool-dumpxml) printf '<pool><target>\n  <path>%s</path>\n</target></pool>\n' "$FAKE_POOL" ;;
  dominfo) [ "$2" = db01 ]; exit $? ;;
  list) printf 'db01\n\n' ;;
  dumpxml) echo "<mac address='52:54:00:00:00:01'/>" ;;
  echo\ *) printf '%s\n' "$1" | tr ';' '\n' | while read -r cmd arg rest; do
      case "$cmd" in
        echo) printf '%s' "$arg" ;;
        dumpxml) echo "<mac address='52:54:00:00:00:01'/>" ;;
      esac
    done ;;
  define) [ -z "$FAKE_DEFINE_FAILS" ] || { echo "error: $FAKE_DEFINE_FAILS" >&2; exit 1; } ;;
esac
exit 0)";

// Writes the target as qemu-img would, with its progress output.
const char* kFakeQemuImg = R"(
[ -n "$FAKE_QEMU_SLEEP" ] && sleep "$FAKE_QEMU_SLEEP"
for last in "$@"; do :; done
printf 'QFI' > "$last"
printf '    (100.00/100%%)\r'
exit 0)";

class ProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = isolateLogDir();
    if (!why.empty()) GTEST_SKIP() << "needs a private mount namespace: " << why;
    std::error_code ec;
    fs::remove(kTestAppLog, ec);
    tools_.addRecording("virsh", kFakeVirsh);
    tools_.addRecording("qemu-img", kFakeQemuImg);
    tools_.addRecording("virt-install", "echo '<domain/>'");
    tools_.addRecording("guestfish", "exit 0");
    setenv("FAKE_POOL", output_.path().c_str(), 1);
    unsetenv("FAKE_DEFINE_FAILS");
    unsetenv("FAKE_QEMU_SLEEP");
    writeFile(source_.file("web01.vmx"),
              ".encoding = \"UTF-8\"\ndisplayName = \"web01\"\nguestOS = \"ubuntu-64\"\n"
              "memsize = \"1024\"\nscsi0:0.present = \"TRUE\"\nscsi0:0.fileName = \"web01.vmdk\"\n"
              "ethernet0.generatedAddress = \"00:50:56:aa:bb:cc\"\n");
    writeFile(source_.file("web01.vmdk"), "# Disk DescriptorFile\nCID=fffffffe\n");
  }

  CommandResult runProgram(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), ORVANE_BINARY);
    CommandOptions options;
    options.stdinData = input;
    return runCommand(args, options);
  }

  std::string lastRecord() { return lastLineOf(kTestAppLog); }

  FakeTools tools_;
  TempDir source_{"orvane-src"};
  TempDir output_{"orvane-out"};
};

TEST_F(ProcessTest, HelpPrintsTheUsageAndWritesNoRecord) {
  CommandResult r = runProgram({"--bogus-later", "-h"});
  EXPECT_EQ(1, r.exitCode) << "an unknown word before -h is the error";
  r = runProgram({"-h", "--bogus"});
  EXPECT_EQ(0, r.exitCode);
  EXPECT_EQ(usageText(), r.stdoutText);
  EXPECT_EQ("", r.stderrText);
  EXPECT_FALSE(fs::exists(kTestAppLog));
}

TEST_F(ProcessTest, UnknownOptionIsAnErrorLineThenUsage) {
  CommandResult r = runProgram({"-p", "/x", "--path=/vm"});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_EQ("", r.stdoutText);
  std::regex first(R"(^\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\] ERROR: Unknown option: --path=/vm\n\n)");
  EXPECT_TRUE(std::regex_search(r.stderrText, first)) << r.stderrText;
  EXPECT_EQ(usageText(), r.stderrText.substr(r.stderrText.find("\n\n") + 2));
}

TEST_F(ProcessTest, DryRunListsEveryBlockerAndChangesNothing) {
  writeFile(output_.file("web01.qcow2"), "old");
  writeFile(source_.file("web01.vmx"), readFile(source_.file("web01.vmx")) +
                                           "ethernet1.generatedAddress = \"52:54:00:00:00:01\"\n");
  CommandResult r = runProgram({"-p", source_.path(), "-o", output_.path(), "--dry-run"});
  EXPECT_EQ(1, r.exitCode);
  std::vector<std::string> out = consoleLines(r.stdoutText);
  EXPECT_TRUE(hasLine(out, "  - Target image already exists (it will not be overwritten): " +
                           output_.file("web01.qcow2")));
  EXPECT_TRUE(hasLine(out, "    Remove or rename it, or choose a different --output-dir / "
                       "--vm-name, then re-run."));
  EXPECT_TRUE(hasLine(out, "  - Source NIC MAC 52:54:00:00:00:01 is already in use on this host "
                       "by VM 'db01'. orvane-v2v preserves the source MAC, so this would "
                       "collide. Remove or change the MAC on the conflicting VM, then re-run."));
  EXPECT_TRUE(tools_.calls("qemu-img").empty());
  EXPECT_EQ("old", readFile(output_.file("web01.qcow2")));
  EXPECT_NE(std::string::npos, lastRecord().find(" vm=web01 result=dry_run_failed "));
}

TEST_F(ProcessTest, ConfirmedRunConvertsDefinesAndRefreshesThePool) {
  CommandResult r = runProgram({"-p", source_.path()}, "yes\n");
  ASSERT_EQ(0, r.exitCode) << r.stderrText;
  auto qemu = tools_.calls("qemu-img");
  ASSERT_EQ(1u, qemu.size());
  EXPECT_EQ((std::vector<std::string>{"convert", "-p", "-f", "vmdk", "-O", "qcow2",
                                      source_.file("web01.vmdk"), output_.file("web01.qcow2")}),
            qemu[0]);
  auto install = tools_.calls("virt-install");
  ASSERT_EQ(1u, install.size());
  EXPECT_TRUE(hasLine(install[0], "network=default,model=e1000,mac=00:50:56:aa:bb:cc"));
  bool defined = false;
  bool refreshed = false;
  for (const auto& call : tools_.calls("virsh")) {
    defined |= !call.empty() && call[0] == "define";
    refreshed |= call == std::vector<std::string>{"pool-refresh", "default"};
  }
  EXPECT_TRUE(defined);
  EXPECT_TRUE(refreshed);
  std::vector<std::string> out = consoleLines(r.stdoutText);
  // With input from a pipe no newline follows the prompt, so the answer's log line
  // shares its line.
  EXPECT_NE(std::string::npos,
            r.stdoutText.find("Proceed? (yes/no): [")) << r.stdoutText;
  EXPECT_NE(std::string::npos, r.stdoutText.find("] User confirmation response: yes\n"));
  EXPECT_TRUE(hasLine(out, "  'default' pool refreshed."));
  EXPECT_NE(std::string::npos, lastRecord().find(" vm=web01 result=success source=vmware "
                                                 "firmware=bios hw=sata+e1000 "));
}

// Ctrl-C typed at the terminal reaches the whole foreground group (the program
// and its converter); a supervisor's kill reaches the program alone. Either way,
// at the prompt or while a disk converts, the run ends at once as interrupted and
// leaves no image behind (none was finished).
TEST_F(ProcessTest, SignalAtThePromptOrWhileConvertingEndsTheRunAtOnce) {
  struct Case {
    bool atPrompt;
    bool typed;  // Ctrl-C on the terminal, else kill() to the program alone
    int signo;
  };
  const Case cases[] = {
      {true, true, SIGINT},   {true, false, SIGTERM},
      {false, true, SIGINT},  {false, false, SIGINT},
  };
  // Far longer than the test waits: only stopping the converter ends the run in time.
  setenv("FAKE_QEMU_SLEEP", "30", 1);
  const std::string started = tools_.dir() + "/qemu-img.argv.0";
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.atPrompt ? "prompt" : "converting") +
                 (c.typed ? ", typed" : ", kill"));
    fs::remove(started);
    for (const auto& entry : fs::directory_iterator(output_.path())) fs::remove(entry.path());
    std::vector<std::string> argv = {ORVANE_BINARY, "-p", source_.path(), "-o",
                                     output_.path()};
    PtyProgram program(argv);
    ASSERT_TRUE(program.waitForOutput("Proceed? (yes/no): ", std::chrono::seconds(20)))
        << program.output();
    if (!c.atPrompt) {
      program.type("yes\n");
      for (int i = 0; i < 200 && !fs::exists(started); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      ASSERT_TRUE(fs::exists(started)) << program.output();
    }
    const auto signalled = std::chrono::steady_clock::now();
    if (c.typed) {
      program.type("\x03");
    } else {
      kill(program.pid(), c.signo);
    }
    EXPECT_EQ(128 + c.signo, program.wait(std::chrono::seconds(10))) << program.output();
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(4));
    EXPECT_EQ(std::string::npos, program.output().find("ERROR")) << program.output();
    EXPECT_EQ(std::string::npos, program.output().find("Rolling back")) << program.output();
    EXPECT_TRUE(fs::is_empty(output_.path()));
    if (c.atPrompt) {
      EXPECT_TRUE(tools_.calls("qemu-img").empty());
    }
    EXPECT_TRUE(tools_.calls("virt-install").empty());
    const std::string record = lastRecord();
    EXPECT_NE(std::string::npos, record.find(" result=interrupted ")) << record;
    EXPECT_TRUE(record.ends_with(c.signo == SIGINT ? " reason=\"SIGINT (Ctrl-C)\""
                                                   : " reason=\"SIGTERM\""))
        << record;
  }
}

TEST_F(ProcessTest, RefusedDefinitionRollsBackTheImages) {
  setenv("FAKE_DEFINE_FAILS", "XML error: bad thing", 1);
  CommandResult r = runProgram({"-p", source_.path(), "-o", output_.path(), "--yes"});
  EXPECT_EQ(1, r.exitCode);
  std::vector<std::string> err = consoleLines(r.stderrText);
  EXPECT_TRUE(hasLine(err, "ERROR: virsh define failed:"));
  EXPECT_TRUE(hasLine(err, "ERROR: error: XML error: bad thing"));
  EXPECT_TRUE(hasLine(err, "WARN:  Rolling back: deleting " + output_.file("web01.qcow2")));
  EXPECT_FALSE(fs::exists(output_.file("web01.qcow2")));
  EXPECT_NE(std::string::npos, lastRecord().find(" result=failure stage=vm_create "));
  // Nothing is left in /tmp by the definition either.
  for (const auto& e : fs::directory_iterator("/tmp")) {
    EXPECT_NE(0u, e.path().filename().string().find("orvane-v2v-domain-"));
  }
}

}  // namespace
}  // namespace orvane::testing
