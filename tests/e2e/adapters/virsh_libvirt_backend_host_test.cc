// VirshLibvirtBackend and VirtInstallDomainXmlBuilder against the running libvirtd.
// Domains are named after the process so that parallel or repeated runs never meet,
// and are removed in TearDown even when an assertion failed half-way.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "domain_xml_builder/virt_install_domain_xml_builder.h"
#include "libvirt_backend/virsh_libvirt_backend.h"
#include "process/command_runner.h"
#include "progress/progress_observer.h"
#include "support/qemu_boot.h"
#include "support/temp_dir.h"

namespace orvane {
namespace {

using testing::TempDir;

class FinishCounter : public ProgressObserver {
 public:
  void onFinish() override { ++finishes; }
  int finishes = 0;
};

class VirshBackendOnHost : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!backend_.isReachable()) {
      GTEST_SKIP() << "libvirtd does not answer `virsh version`: run scripts/host-setup";
    }
    removeLeftovers();
    // qemu runs as another user when a guest starts; mkdtemp's 0700 would lock it out.
    chmod(dir_.path().c_str(), 0755);
  }

  /// Domains of earlier runs whose process died before its TearDown.
  void removeLeftovers() {
    const std::string prefix = "orvane-e2e-";
    for (const std::string& name : backend_.listDomains()) {
      if (name.rfind(prefix, 0) != 0) continue;
      std::size_t dash = name.find('-', prefix.size());
      if (dash == std::string::npos) continue;
      pid_t pid = static_cast<pid_t>(
          std::atol(name.substr(prefix.size(), dash - prefix.size()).c_str()));
      if (pid <= 0 || kill(pid, 0) == 0 || errno != ESRCH) continue;
      runCommand({"virsh", "destroy", name});
      backend_.undefineDomain(name);
    }
  }

  void TearDown() override {
    for (const std::string& name : created_) {
      runCommand({"virsh", "destroy", name});
      backend_.undefineDomain(name);
    }
  }

  std::string domainName(const std::string& suffix) {
    std::string name = "orvane-e2e-" + std::to_string(getpid()) + "-" + suffix;
    created_.push_back(name);
    return name;
  }

  /// A locally administered MAC that differs per process and per domain.
  static std::string uniqueMac(int salt) {
    unsigned pid = static_cast<unsigned>(getpid());
    char mac[18];
    std::snprintf(mac, sizeof mac, "52:54:00:%02x:%02x:%02x", (pid >> 8) & 0xff,
                  pid & 0xff, salt & 0xff);
    return mac;
  }

  DomainSpec spec(const std::string& name, bool uefi, const std::string& mac) {
    std::string image = dir_.file(name + ".qcow2");
    EXPECT_TRUE(
        runCommand({"qemu-img", "create", "-q", "-f", "qcow2", image, "16M"}).ok());
    DomainSpec s;
    s.vmName = name;
    s.vcpus = 1;
    s.memoryMb = 256;
    s.osinfo = "detect=on,require=off";
    s.clockOffset = "utc";
    s.uefi = uefi;
    s.disks = {{image, "sata"}};
    s.nics = {{"e1000", mac}};
    return s;
  }

  bool listed(const std::string& name) {
    std::vector<std::string> all = backend_.listDomains();
    return std::find(all.begin(), all.end(), name) != all.end();
  }

  VirshLibvirtBackend backend_;
  TempDir dir_{"orvane-e2e-libvirt"};
  std::vector<std::string> created_;
};

TEST_F(VirshBackendOnHost, DefaultNetworkAndPool) {
  EXPECT_TRUE(backend_.networkDefined("default"));
  EXPECT_TRUE(backend_.networkActive("default"));
  EXPECT_FALSE(backend_.networkDefined("orvane-e2e-no-such-network"));
  EXPECT_FALSE(backend_.networkActive("orvane-e2e-no-such-network"));
  EXPECT_EQ(backend_.defaultPoolPath(), "/var/lib/libvirt/images");
  EXPECT_FALSE(backend_.domainExists("orvane-e2e-no-such-domain"));
  // virsh prints a bare line feed here: "as it stands" is not quite empty.
  EXPECT_EQ(backend_.dumpDomainXml("orvane-e2e-no-such-domain").find("<domain"),
            std::string::npos);

  FinishCounter progress;
  EXPECT_TRUE(backend_.refreshPool("default", &progress));
  EXPECT_EQ(progress.finishes, 1);
  EXPECT_FALSE(backend_.refreshPool("orvane-e2e-no-such-pool", nullptr));
}

TEST_F(VirshBackendOnHost, BiosDomainRoundTrip) {
  const std::string name = domainName("bios");
  const std::string mac = uniqueMac(1);
  std::string xml =
      VirtInstallDomainXmlBuilder().buildDomainXml(spec(name, false, mac), nullptr);
  ASSERT_NE(xml.find("<domain"), std::string::npos) << xml;

  FinishCounter progress;
  backend_.defineDomain(xml, &progress);
  EXPECT_EQ(progress.finishes, 1);
  EXPECT_TRUE(backend_.domainExists(name));
  EXPECT_TRUE(listed(name));
  std::string dumped = backend_.dumpDomainXml(name);
  EXPECT_NE(dumped.find("<name>" + name + "</name>"), std::string::npos);
  EXPECT_NE(dumped.find(mac), std::string::npos) << dumped;
  EXPECT_NE(dumped.find("bus='sata'"), std::string::npos);
  EXPECT_EQ(dumped.find("firmware='efi'"), std::string::npos);

  backend_.undefineDomain(name);
  EXPECT_FALSE(backend_.domainExists(name));
  EXPECT_FALSE(listed(name));
}

// libvirt creates the variable store when a UEFI guest first starts; from then on a
// plain `undefine` is refused, so only the --nvram form can remove the domain.
TEST_F(VirshBackendOnHost, UefiDomainWithNvramIsUndefined) {
  const std::string name = domainName("uefi");
  const std::string mac = uniqueMac(2);
  // This one is started: where KVM runs no guest, libvirt must emulate it.
  std::string xml = testing::domainTypeForThisHost(
      VirtInstallDomainXmlBuilder().buildDomainXml(spec(name, true, mac), nullptr));
  backend_.defineDomain(xml, nullptr);
  ASSERT_TRUE(backend_.domainExists(name));
  EXPECT_NE(backend_.dumpDomainXml(name).find("firmware='efi'"), std::string::npos);

  CommandResult started = runCommand({"virsh", "start", name});
  ASSERT_TRUE(started.ok()) << started.stderrText;
  // Only the running domain's XML names the store that libvirt picked.
  std::string live = backend_.dumpDomainXml(name);
  runCommand({"virsh", "destroy", name});
  EXPECT_NE(live.find(mac), std::string::npos);
  std::size_t open = live.find("<nvram");
  ASSERT_NE(open, std::string::npos) << live;
  std::size_t start = live.find('>', open) + 1;
  std::string nvram = live.substr(start, live.find("</nvram>", start) - start);
  EXPECT_TRUE(std::filesystem::exists(nvram)) << nvram;

  backend_.undefineDomain(name);
  EXPECT_FALSE(backend_.domainExists(name));
  EXPECT_FALSE(listed(name));
  EXPECT_FALSE(std::filesystem::exists(nvram))
      << "the variable store went with the domain";
}

TEST_F(VirshBackendOnHost, DefineRejectsBadXmlWithVirshsWords) {
  try {
    backend_.defineDomain("<domain type='kvm'><name>orvane-e2e-broken</name>", nullptr);
    FAIL() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("error"), std::string::npos) << e.what();
  }
  EXPECT_FALSE(backend_.domainExists("orvane-e2e-broken"));
}

}  // namespace
}  // namespace orvane
