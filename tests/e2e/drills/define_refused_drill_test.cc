// libvirt itself refuses the definition after both images were written: a source
// with more vCPUs than the machine type allows passes every check of ours and of
// virt-install, and only `virsh define` says no. The run quotes libvirt's own
// lines, rolls both images back and ends with 1.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

class DefineRefusedOnHost : public HostRunTest {};

TEST_F(DefineRefusedOnHost, LibvirtsErrorIsQuotedAndTheImagesRolledBack) {
  VmwareFolderSpec spec;
  spec.displayName = "wide01";
  spec.numvcpus = 9999;
  spec.disks = {VmwareDiskSpec{"scsi0:0"}, VmwareDiskSpec{"scsi0:1"}};
  VmwareFolder folder(spec);
  const FolderSnapshot before = snapshotFolder(folder.path());
  TempDir out("orvane-e2e-out");
  const std::string vm = vmName("refused");

  CommandResult r =
      runProgram({"-p", folder.path(), "-o", out.path(), "-n", vm, "--yes"});
  EXPECT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> errors = consoleLines(r.stderrText);
  const std::vector<std::string> quoted =
      linesAfter(errors, "ERROR: virsh define failed:", 2);
  ASSERT_EQ(2u, quoted.size()) << r.stderrText;
  const std::string tempPrefix = "ERROR: error: Failed to define domain from ";
  EXPECT_TRUE(quoted[0].starts_with(tempPrefix + "/tmp/orvane-v2v-domain-")) << quoted[0];
  EXPECT_TRUE(quoted[1].starts_with("ERROR: error: ")) << quoted[1];
  EXPECT_NE(std::string::npos, quoted[1].find("Maximum CPUs")) << quoted[1];
  for (const char* dev : {"sda", "sdb"}) {
    EXPECT_TRUE(hasLine(
        errors, "WARN:  Rolling back: deleting " + out.file(vm + "-" + dev + ".qcow2")));
  }
  EXPECT_TRUE(hasLine(consoleLines(r.stdoutText),
                      "Partial conversion rolled back; no Orvane VM left behind."));
  EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(out.path()));
  EXPECT_FALSE(domainDefined(vm));
  if (quoted[0].starts_with(tempPrefix)) {
    EXPECT_FALSE(fs::exists(quoted[0].substr(tempPrefix.size())))
        << "the temporary domain XML must not outlive the run";
  }
  EXPECT_NE(std::string::npos,
            lastRecordFor(vm).find(" result=failure stage=vm_create "));
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder.path())));
}

}  // namespace
}  // namespace orvane::testing
