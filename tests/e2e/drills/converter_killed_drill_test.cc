// The real qemu-img is killed with SIGKILL while it converts the second disk (no
// signal reaches the program): the step reports the failure, and both the first
// disk's image and the second's half-written one are removed, exit 1.
#include <gtest/gtest.h>

#include <memory>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

class ConverterKilledOnHost : public HostRunTest {};

TEST_F(ConverterKilledOnHost, FailureIsReportedAndTheFirstImageRolledBack) {
  const std::unique_ptr<VmwareFolder> source = twoFlatDiskFolder("killed01", 1ULL << 30);
  const VmwareFolder& folder = *source;
  const FolderSnapshot before = snapshotFolder(folder.path());
  TempDir out("orvane-e2e-out");
  const std::string vm = vmName("killed");

  // The second conversion is the one whose target ends in -sdb.qcow2.
  const std::string action =
      "until child=$(pgrep -P $pid -f -- '-sdb[.]qcow2$'); do\n"
      "  kill -0 $pid 2>/dev/null || break\n"
      "  sleep 0.05\n"
      "done\n"
      "sleep 0.1\n"
      "kill -KILL $child";
  CommandResult r =
      runProgramWhile(action, {"-p", folder.path(), "-o", out.path(), "-n", vm, "--yes"});
  EXPECT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> errors = consoleLines(r.stderrText);
  const std::string failed =
      "ERROR: qemu-img conversion failed for " + folder.diskPaths()[1] + ": ";
  EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [&](const std::string& l) {
    return l.starts_with(failed);
  })) << r.stderrText;
  for (const char* disk : {"-sda.qcow2", "-sdb.qcow2"}) {
    EXPECT_TRUE(hasLine(errors, "WARN:  Rolling back: deleting " + out.file(vm + disk)))
        << r.stderrText;
  }
  EXPECT_TRUE(hasLine(consoleLines(r.stdoutText),
                      "Partial conversion rolled back; no Orvane VM left behind."));
  EXPECT_EQ(std::string::npos, r.stdoutText.find("Step 4/7"));
  EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(out.path()));
  // A killed converter's only output is its progress: none of it in the error line.
  EXPECT_EQ(std::string::npos, r.stderrText.find("/100%)")) << r.stderrText;
  EXPECT_FALSE(domainDefined(vm));
  EXPECT_NE(std::string::npos,
            lastRecordFor(vm).find(" result=failure stage=disk_convert "));
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder.path())));
}

}  // namespace
}  // namespace orvane::testing
