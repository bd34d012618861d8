#include "domain_xml_builder/virt_install_domain_xml_builder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
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

// A libvirt that keeps its storage pools in files of `dir`: "active" and "inactive"
// list the names, "path.<pool>" holds each pool's directory.
std::string fakeVirsh(const std::string& dir) {
  return "d='" + dir + R"sh('
drop() { grep -vx "$1" "$d/$2" > "$d/tmp" || true; mv "$d/tmp" "$d/$2"; }
case "$1" in
  pool-list) if [ "$2" = --inactive ]; then cat "$d/inactive"; else cat "$d/active"; fi ;;
  pool-dumpxml) [ -f "$d/path.$2" ] || { echo "error: no pool $2" >&2; exit 1; }
    printf '<pool type="dir">\n  <target>\n    <path>%s</path>\n  </target>\n</pool>\n' \
      "$(cat "$d/path.$2")" ;;
  pool-destroy) grep -qx "$2" "$d/active" || exit 1; drop "$2" active; echo "$2" >> "$d/inactive" ;;
  pool-undefine) [ -z "$FAKE_UNDEFINE_FAILS" ] || { echo "error: pool busy" >&2; exit 1; }
    drop "$2" inactive; rm -f "$d/path.$2" ;;
  *) exit 1 ;;
esac)sh";
}

/// Fake virsh and virt-install over one pool state, and the lock in a private file.
class FakeHost {
 public:
  FakeHost() {
    pools_ = tools_.dir() + "/pools";
    std::filesystem::create_directory(pools_);
    setPools("default\n", "", {{"default", "/var/lib/libvirt/images"}});
    tools_.addRecording("virsh", fakeVirsh(pools_));
    unsetenv("FAKE_UNDEFINE_FAILS");
  }

  void setPools(const std::string& active, const std::string& inactive,
                const std::vector<std::pair<std::string, std::string>>& paths) {
    writeFile(pools_ + "/active", active);
    writeFile(pools_ + "/inactive", inactive);
    for (const auto& [pool, path] : paths) writeFile(pools_ + "/path." + pool, path + "\n");
  }

  /// Every pool with its state and directory, one line each.
  std::string poolState() const {
    std::string state = "active:\n" + testing::readFile(pools_ + "/active") + "inactive:\n" +
                        testing::readFile(pools_ + "/inactive");
    for (const auto& e : std::filesystem::directory_iterator(pools_)) {
      const std::string name = e.path().filename().string();
      if (name.rfind("path.", 0) == 0) state += name + " " + testing::readFile(e.path());
    }
    return state;
  }

  /// virt-install that runs `sideEffect` (sh, $d is the pool state), then prints XML.
  void virtInstallDoing(const std::string& sideEffect, const std::string& exit = "exit 0") {
    tools_.addRecording("virt-install", "d='" + pools_ + "'\n" +
                                            // The lock must be held while it runs.
                                            "flock -n '" + lock() + "' true && exit 9\n" +
                                            sideEffect + "\necho '<domain/>'\n" + exit);
  }

  std::string lock() const { return tools_.dir() + "/pools.lock"; }

  DomainSpec specIn(const std::string& dir) {
    DomainSpec spec = biosSpec();
    spec.disks = {{dir + "/web01-sda.qcow2", "sata"}, {dir + "/web01-sdb.qcow2", "sata"}};
    return spec;
  }

  FakeTools tools_;
  std::string pools_;
};

class BuilderOnFakeHost : public ::testing::Test, protected FakeHost {};

TEST_F(BuilderOnFakeHost, RunsTheCommandAndReturnsItsOutput) {
  writeFile(tools_.dir() + "/xml.out",
            "<domain type=\"kvm\">\n  <name>web01</name>\n</domain>\n");
  tools_.addRecording("virt-install", "cat '" + tools_.dir() + "/xml.out'\necho noise >&2");
  FinishCounter progress;

  std::string xml = VirtInstallDomainXmlBuilder(lock()).buildDomainXml(biosSpec(), &progress);

  EXPECT_EQ(xml, "<domain type=\"kvm\">\n  <name>web01</name>\n</domain>\n");
  Argv args = buildVirtInstallArgv(biosSpec());
  args.erase(args.begin());
  EXPECT_EQ(tools_.calls("virt-install"), std::vector<Argv>{args});
  EXPECT_EQ(tools_.stdins("virt-install"), std::vector<std::string>{""});
  EXPECT_EQ(progress.finishes, 1);
}

TEST_F(BuilderOnFakeHost, FailureThrowsTheToolsErrorText) {
  tools_.add("virt-install",
             "echo '<partial/>'\necho 'ERROR    Error: --disk path=x: No such file' "
             ">&2\nexit 1");
  try {
    VirtInstallDomainXmlBuilder(lock()).buildDomainXml(biosSpec(), nullptr);
    FAIL() << "no exception";
  } catch (const V2vError& e) {
    EXPECT_STREQ(e.what(), "ERROR    Error: --disk path=x: No such file\n");
    EXPECT_EQ(e.stage(), "");
    EXPECT_FALSE(e.alreadyReported());
  }
}

// What virt-install does to the pools (as virtinst does for a --disk path) is undone
// for the images' own directory and for nothing else.
TEST(VirtInstallDomainXmlBuilder, PoolsAreLeftAsFound) {
  struct Case {
    const char* name;
    std::string active, inactive;  // beside "default"
    std::vector<std::pair<std::string, std::string>> paths;
    std::string sideEffect;
    std::vector<Argv> putBack;  // the virsh calls that change a pool
    std::string expectChanged;  // "" when the pools must be as before
  };
  const std::string newPool = "echo out >> \"$d/active\"; echo /srv/out > \"$d/path.out\"";
  const Case cases[] = {
      {"a pool made for a new directory is removed, however the directory is spelled", "",
       "", {}, newPool, {{"pool-destroy", "out"}, {"pool-undefine", "out"}}, ""},
      {"a pool made while stopped is only undefined", "", "", {},
       "echo out >> \"$d/inactive\"; echo /srv/out/ > \"$d/path.out\"",
       {{"pool-undefine", "out"}}, ""},
      {"the user's pool of the directory stays", "mine\n", "", {{"mine", "/srv/out"}}, "", {},
       ""},
      {"the user's stopped pool of the directory is stopped again", "", "mine\n",
       {{"mine", "/srv/out"}},
       "grep -vx mine \"$d/inactive\" > \"$d/t\"; mv \"$d/t\" \"$d/inactive\"; "
       "echo mine >> \"$d/active\"",
       {{"pool-destroy", "mine"}}, ""},
      {"a pool made meanwhile for another directory is not ours", "", "", {},
       "echo theirs >> \"$d/active\"; echo /srv/other > \"$d/path.theirs\"", {},
       "theirs"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeHost host;
    auto& tools_ = host.tools_;
    auto lock = [&host] { return host.lock(); };
    host.setPools("default\n" + c.active, c.inactive, c.paths);
    const std::string before = host.poolState();
    host.virtInstallDoing(c.sideEffect);

    EXPECT_EQ(VirtInstallDomainXmlBuilder(lock()).buildDomainXml(host.specIn("/srv/./out/"), nullptr),
              "<domain/>\n");

    std::vector<Argv> changes;
    for (const Argv& call : tools_.calls("virsh")) {
      if (call[0] == "pool-destroy" || call[0] == "pool-undefine") changes.push_back(call);
    }
    EXPECT_EQ(changes, c.putBack);
    if (c.expectChanged.empty()) {
      EXPECT_EQ(host.poolState(), before);
    } else {
      EXPECT_NE(host.poolState().find(c.expectChanged), std::string::npos) << host.poolState();
    }
  }
}

TEST_F(BuilderOnFakeHost, AFailedVirtInstallStillLeavesNoPool) {
  const std::string before = poolState();
  virtInstallDoing("echo out >> \"$d/active\"; echo /srv/out > \"$d/path.out\"; "
                   "echo 'ERROR    Disk is in use' >&2",
                   "exit 1");
  EXPECT_THROW(VirtInstallDomainXmlBuilder(lock()).buildDomainXml(specIn("/srv/out"), nullptr),
               V2vError);
  EXPECT_EQ(poolState(), before);
}

TEST_F(BuilderOnFakeHost, APoolThatCannotBeRemovedFailsTheStepAndIsNamed) {
  setenv("FAKE_UNDEFINE_FAILS", "1", 1);
  virtInstallDoing("echo out >> \"$d/active\"; echo /srv/out > \"$d/path.out\"");
  try {
    VirtInstallDomainXmlBuilder(lock()).buildDomainXml(specIn("/srv/out"), nullptr);
    FAIL() << "no exception";
  } catch (const V2vError& e) {
    EXPECT_STREQ(e.what(),
                 "Could not undefine storage pool 'out' that virt-install made for /srv/out: "
                 "error: pool busy\n");
  }
  unsetenv("FAKE_UNDEFINE_FAILS");
}

}  // namespace
}  // namespace orvane
