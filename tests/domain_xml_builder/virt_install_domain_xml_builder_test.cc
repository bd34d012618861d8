#include "domain_xml_builder/virt_install_domain_xml_builder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conversion/errors.h"
#include "progress/progress_observer.h"
#include "support/fake_tools.h"

namespace orvane {
namespace {

using testing::FakeTools;
using testing::writeFile;
using Argv = std::vector<std::string>;

DomainSpec biosSpec() {
  DomainSpec spec;
  spec.vmName = "web01";
  spec.vcpus = 2;
  spec.memoryMb = 4096;
  spec.osinfo = "detect=on,require=off";
  spec.clockOffset = "utc";
  spec.disks = {{"/var/lib/libvirt/images/web01.qcow2", "sata"}};
  spec.nics = {{"e1000", ""}};
  return spec;
}

TEST(BuildVirtInstallArgv, BiosOneDiskOneNicWithoutMac) {
  // clang-format off
  const Argv expected = {
      "virt-install", "--name", "web01", "--vcpus", "2", "--memory", "4096",
      "--osinfo", "detect=on,require=off", "--clock", "offset=utc",
      "--disk", "path=/var/lib/libvirt/images/web01.qcow2,format=qcow2,bus=sata",
      "--network", "network=default,model=e1000",
      "--video", "vga", "--graphics", "vnc", "--import", "--print-xml"};
  // clang-format on
  Argv argv = buildVirtInstallArgv(biosSpec());
  EXPECT_EQ(argv.size(), 21u);
  EXPECT_EQ(argv, expected);
}

TEST(BuildVirtInstallArgv, Variants) {
  struct Case {
    const char* name;
    void (*change)(DomainSpec&);
    Argv middle;  // everything between "offset=utc" and "--video"
  };
  const std::string disk =
      "path=/var/lib/libvirt/images/web01.qcow2,format=qcow2,bus=sata";
  const Case cases[] = {
      {"uefi",
       [](DomainSpec& s) { s.uefi = true; },
       {"--boot", "uefi", "--machine", "q35", "--disk", disk, "--network",
        "network=default,model=e1000"}},
      {"ide disks get the machine that has an ide controller",
       [](DomainSpec& s) { s.disks = {{"/i/w7-hda.qcow2", "ide"}, {"/i/w7-hdb.qcow2", "ide"}}; },
       {"--machine", "pc", "--disk", "path=/i/w7-hda.qcow2,format=qcow2,bus=ide", "--disk",
        "path=/i/w7-hdb.qcow2,format=qcow2,bus=ide", "--network", "network=default,model=e1000"}},
      {"uefi on ide",
       [](DomainSpec& s) {
         s.uefi = true;
         s.disks = {{"/i/w7.qcow2", "ide"}};
       },
       {"--boot", "uefi", "--machine", "pc", "--disk", "path=/i/w7.qcow2,format=qcow2,bus=ide",
        "--network", "network=default,model=e1000"}},
      {"macs and several devices in order",
       [](DomainSpec& s) {
         s.disks.push_back({"/srv/vm dir/web01-sdb.qcow2", "virtio"});
         s.nics = {{"virtio", "00:50:56:aa:bb:cc"},
                   {"e1000", ""},
                   {"e1000", "00:0c:29:01:02:03"}};
       },
       {"--disk", disk, "--disk",
        "path=/srv/vm dir/web01-sdb.qcow2,format=qcow2,bus=virtio", "--network",
        "network=default,model=virtio,mac=00:50:56:aa:bb:cc", "--network",
        "network=default,model=e1000", "--network",
        "network=default,model=e1000,mac=00:0c:29:01:02:03"}},
      {"no disks, no nics",
       [](DomainSpec& s) {
         s.disks.clear();
         s.nics.clear();
       },
       {}},
  };
  for (const Case& c : cases) {
    DomainSpec spec = biosSpec();
    c.change(spec);
    Argv expected = {"virt-install", "--name",    "web01",
                     "--vcpus",      "2",         "--memory",
                     "4096",         "--osinfo",  "detect=on,require=off",
                     "--clock",      "offset=utc"};
    expected.insert(expected.end(), c.middle.begin(), c.middle.end());
    expected.insert(expected.end(),
                    {"--video", "vga", "--graphics", "vnc", "--import", "--print-xml"});
    EXPECT_EQ(buildVirtInstallArgv(spec), expected) << c.name;
  }
}

TEST(BuildVirtInstallArgv, LargeMemoryIsPlainDecimal) {
  DomainSpec spec = biosSpec();
  spec.vcpus = 128;
  spec.memoryMb = 4LL * 1024 * 1024 * 1024;  // beyond 32 bits
  Argv argv = buildVirtInstallArgv(spec);
  EXPECT_EQ(argv[4], "128");
  EXPECT_EQ(argv[6], "4294967296");
}

class FinishCounter : public ProgressObserver {
 public:
  void onFinish() override { ++finishes; }
  int finishes = 0;
};

TEST(VirtInstallDomainXmlBuilder, RunsTheCommandAndReturnsItsOutput) {
  FakeTools tools;
  writeFile(tools.dir() + "/xml.out",
            "<domain type=\"kvm\">\n  <name>web01</name>\n</domain>\n");
  tools.addRecording("virt-install", "cat '" + tools.dir() + "/xml.out'\necho noise >&2");
  FinishCounter progress;

  std::string xml = VirtInstallDomainXmlBuilder().buildDomainXml(biosSpec(), &progress);

  EXPECT_EQ(xml, "<domain type=\"kvm\">\n  <name>web01</name>\n</domain>\n");
  Argv args = buildVirtInstallArgv(biosSpec());
  args.erase(args.begin());
  EXPECT_EQ(tools.calls("virt-install"), std::vector<Argv>{args});
  EXPECT_EQ(tools.stdins("virt-install"), std::vector<std::string>{""});
  EXPECT_EQ(progress.finishes, 1);
}

TEST(VirtInstallDomainXmlBuilder, FailureThrowsTheToolsErrorText) {
  FakeTools tools;
  tools.add("virt-install",
            "echo '<partial/>'\necho 'ERROR    Error: --disk path=x: No such file' "
            ">&2\nexit 1");
  try {
    VirtInstallDomainXmlBuilder().buildDomainXml(biosSpec(), nullptr);
    FAIL() << "no exception";
  } catch (const V2vError& e) {
    EXPECT_STREQ(e.what(), "ERROR    Error: --disk path=x: No such file\n");
    EXPECT_EQ(e.stage(), "");
    EXPECT_FALSE(e.alreadyReported());
  }
}

}  // namespace
}  // namespace orvane
