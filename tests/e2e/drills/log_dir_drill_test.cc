// /var/log/orvane missing, a regular file, or read-only: the migration itself goes
// on and succeeds; only the logs suffer, and the console says so once.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

struct LogDirCase {
  const char* name;
  const char* mountPoint;         ///< where this case's tmpfs goes
  unsigned long flags;            ///< mount flags of that tmpfs
  std::function<void()> prepare;  ///< run after the mount
  std::string warning;            ///< the one stderr line expected, "" for none
};

class LogDirOnHost : public HostRunTest {
 protected:
  void TearDown() override {
    HostRunTest::TearDown();
    if (!mounted_.empty()) umount2(mounted_.c_str(), MNT_DETACH);
  }

  std::string mounted_;
};

TEST_F(LogDirOnHost, MigrationSucceedsWhateverTheLogDirectoryIs) {
  // Each case mounts over the private tmpfs of isolateLogDir(), never over the host.
  const std::vector<LogDirCase> cases = {
      {"missing: created on the way", "/var/log", 0, [] {}, ""},
      {"a regular file", "/var/log", 0,
       [] { writeFile("/var/log/orvane", "not a directory\n"); },
       "WARN: Could not create application log directory: /var/log/orvane"},
      {"read-only", "/var/log/orvane", MS_RDONLY, [] {},
       "WARN: Could not write to application log: /var/log/orvane/orvane-v2v.log"},
  };
  VmwareFolderSpec spec;
  spec.displayName = "logs01";
  VmwareFolder folder(spec);
  const FolderSnapshot before = snapshotFolder(folder.path());

  for (std::size_t i = 0; i < cases.size(); ++i) {
    const LogDirCase& c = cases[i];
    SCOPED_TRACE(c.name);
    ASSERT_EQ(0, mount("tmpfs", c.mountPoint, "tmpfs", c.flags, "size=8m"))
        << std::strerror(errno);
    mounted_ = c.mountPoint;
    c.prepare();

    TempDir out("orvane-e2e-out");
    const std::string vm = vmName("logs" + std::to_string(i));
    CommandResult r =
        runProgram({"-p", folder.path(), "-o", out.path(), "-n", vm, "--yes"});
    EXPECT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;
    EXPECT_TRUE(domainDefined(vm));
    const std::vector<std::string> errLines = consoleLines(r.stderrText);
    const std::vector<std::string> console = consoleLines(r.stdoutText);
    if (c.warning.empty()) {
      EXPECT_EQ(std::string::npos, r.stderrText.find("WARN: Could not")) << r.stderrText;
      EXPECT_NE(std::string::npos, lastRecordFor(vm).find(" result=success "));
      bool runLogNamed = false;
      for (const std::string& name : fileNamesIn(kTestRunLogDir)) {
        runLogNamed |= name.starts_with(vm + "-") && name.ends_with(".log");
      }
      EXPECT_TRUE(runLogNamed);
    } else {
      // Printed as it stands, with no timestamp, and only once.
      EXPECT_EQ(1, std::count(errLines.begin(), errLines.end(), c.warning))
          << r.stderrText;
      EXPECT_TRUE(hasLine(console, "Full log: <run log unavailable>"));
    }
    EXPECT_TRUE(hasLine(console, " Conversion complete: " + vm));

    ASSERT_EQ(0, umount2(mounted_.c_str(), MNT_DETACH)) << std::strerror(errno);
    mounted_.clear();
    undefineIfDefined(vm);
  }
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder.path())));
}

}  // namespace
}  // namespace orvane::testing
