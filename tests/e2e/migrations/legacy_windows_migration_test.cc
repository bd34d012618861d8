// A pre-Windows-8 guest migrated with the real tools: IDE and e1000 for a sure
// first boot, the guest's local-time clock, and its Windows os-variant reaching
// virt-install; with --virtio, virtio for both instead.
#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

class LegacyWindowsOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    VmwareFolderSpec spec;
    spec.displayName = "w2k8r2";
    spec.guestOs = "windows7srv-64";
    spec.numvcpus = 2;
    spec.memsize = 1024;
    spec.nicMacs = {"00:0c:29:12:34:56"};
    spec.disks = {VmwareDiskSpec{"scsi0:0"}, VmwareDiskSpec{"scsi0:1"}};
    folder_ = std::make_unique<VmwareFolder>(spec);
    before_ = snapshotFolder(folder_->path());
  }

  /// Migrates the folder verbosely and checks what every variant shares: success,
  /// the os-variant on virt-install's command line and in the domain's metadata,
  /// the local-time clock, both disks on `bus` as `dev`a/`dev`b, the NIC's model.
  void migrateAndCheck(const std::string& vm, const std::vector<std::string>& extra,
                       const std::string& bus, const std::string& dev,
                       const std::string& nicModel) {
    std::vector<std::string> args = {"-p", folder_->path(), "-o", out_.path(), "-n",
                                     vm,   "--yes",         "-v"};
    args.insert(args.end(), extra.begin(), extra.end());
    CommandResult r = runProgram(args);
    ASSERT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;
    EXPECT_NE(std::string::npos,
              r.stderrText.find(" --osinfo name=win2k8r2,require=off "))
        << r.stderrText;

    const std::string xml = domainXml(vm);
    EXPECT_NE(std::string::npos,
              xml.find("<libosinfo:os id=\"http://microsoft.com/win/2k8r2\"/>"))
        << xml;
    EXPECT_NE(std::string::npos, xml.find("<clock offset='localtime'>")) << xml;
    for (const char* unit : {"a", "b"}) {
      const std::string image = out_.file(vm + "-" + dev + unit + ".qcow2");
      std::regex disk("<source file='" + image +
                      "'/>\\s*(<backingStore/>\\s*)?<target dev='" + dev + unit +
                      "' bus='" + bus + "'/>");
      EXPECT_TRUE(std::regex_search(xml, disk)) << image << "\n" << xml;
    }
    std::regex nic(
        "<mac address='00:0c:29:12:34:56'/>\\s*<source network='default'/>"
        "[\\s\\S]*?<model type='" +
        nicModel + "'/>");
    EXPECT_TRUE(std::regex_search(xml, nic)) << xml;
    EXPECT_EQ("", describeDifferences(before_, snapshotFolder(folder_->path())));
  }

  std::unique_ptr<VmwareFolder> folder_;
  FolderSnapshot before_;
  TempDir out_{"orvane-e2e-out"};
};

// q35, virt-install's default machine here, has no IDE controller: libvirt would
// refuse such a domain, so an IDE guest must come out on the i440fx machine.
TEST_F(LegacyWindowsOnHost, GetsIdeAndE1000OnI440fx) {
  const std::string vm = vmName("w2k8r2-ide");
  migrateAndCheck(vm, {}, "ide", "hd", "e1000");
  if (HasFatalFailure()) return;
  const std::string xml = domainXml(vm);
  EXPECT_TRUE(std::regex_search(xml, std::regex("machine='pc-i440fx-[^']*'"))) << xml;
  EXPECT_NE(
      std::string::npos,
      lastRecordFor(vm).find(" result=success source=vmware firmware=bios hw=ide+e1000 "))
      << lastRecordFor(vm);
}

TEST_F(LegacyWindowsOnHost, WithVirtioGetsVirtioDisksAndNic) {
  const std::string vm = vmName("w2k8r2-virtio");
  migrateAndCheck(vm, {"--virtio"}, "virtio", "vd", "virtio");
  EXPECT_NE(
      std::string::npos,
      lastRecordFor(vm).find(" result=success source=vmware firmware=bios hw=virtio "))
      << lastRecordFor(vm);
}

}  // namespace
}  // namespace orvane::testing
