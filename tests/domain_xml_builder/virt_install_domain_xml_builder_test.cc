// The builder against a fake libvirt that keeps its storage pools in one file: the
// command line it runs (data/argv.txt), and whatever virt-install does to the pools of
// the images' directories undone, nothing else touched (data/pools.txt).
#include "domain_xml_builder/virt_install_domain_xml_builder.h"

#include "support/tables.h"

namespace orvane::testing {
namespace {

const std::string kData = ORVANE_SOURCE_DIR "/tests/domain_xml_builder/data";

/// The case's VM: its "disk: PATH BUS" and "nic: MODEL [MAC]" lines, the rest defaults.
DomainSpec specOf(const Case& c) {
  DomainSpec spec{"web01", 2, 4096, "detect=on,require=off", "utc", c["uefi"] == "yes",
                  {},      {}};
  if (!c["vcpus"].empty()) spec.vcpus = std::stoi(c["vcpus"]);
  if (!c["memory"].empty()) spec.memoryMb = std::stoll(c["memory"]);
  for (const std::string& disk : c.all("disk"))
    spec.disks.push_back(
        {disk.substr(0, disk.rfind(' ')), disk.substr(disk.rfind(' ') + 1)});
  for (const std::string& nic : c.all("nic")) {
    const std::size_t blank = std::min(nic.find(' '), nic.size());
    spec.nics.push_back(
        {nic.substr(0, blank), nic.substr(std::min(blank + 1, nic.size()))});
  }
  return spec;
}

// clang-format off
const char kFakeVirsh[] = R"sh([ "$1" = "$(cat $d/fails)" ] && { echo "error: pool busy" >&2; exit 1; }
case $1 in
  pool-list) awk -v s=$([ $2 = --inactive ] && echo inactive || echo active) '$2 == s {print $1}' $d/state;;
  pool-dumpxml) grep -q "^$2 " $d/state && awk -v p=$2 '$1 == p {print "<pool>\n  <path>" $3 "</path>"}' $d/state;;
  pool-destroy) sed -i "s|^$2 active |$2 inactive |" $d/state;;
  pool-undefine) sed -i "/^$2 /d" $d/state;;
esac)sh";
// clang-format on

TEST(VirtInstallDomainXmlBuilder, RunsItsCommandLineAndLeavesThePoolsAsFound) {
  for (const char* table : {"/argv.txt", "/pools.txt"}) {
    for (const Case& c : readCases(kData + table)) {
      FakeTools tools;
      const std::string d = "d=" + tools.dir() + "\n", lock = tools.dir() + "/pools.lock";
      writeFile(tools.dir() + "/fails", c["virsh-fails"]);
      writeFile(tools.dir() + "/state",
                "default active /var/lib/libvirt/images\n" + c["before"]);
      tools.addRecording("virsh", d + kFakeVirsh);
      // The lock must be held while virt-install runs.
      tools.addRecording("virt-install", d + "flock -n " + lock + " true && exit 9\n" +
                                             (c["virt-install"].empty()
                                                  ? "printf '%s\\n' virt-install \"$@\""
                                                  : c["virt-install"]));
      RecordingProgress progress;
      std::string got;
      try {
        got = "result: " +
              VirtInstallDomainXmlBuilder(lock).buildDomainXml(specOf(c), &progress);
      } catch (const V2vError& e) {
        got = std::string("error: ") + e.what();
      }
      if (got.back() != '\n') got += '\n';
      for (const std::vector<std::string>& call : tools.calls("virsh")) {
        if (call[0] == "pool-destroy" || call[0] == "pool-undefine")
          got += "changed: " + joined(call, " ") + "\n";
      }
      EXPECT_EQ(got + "pools: " + readFile(tools.dir() + "/state"),
                c.text({"result", "error", "changed", "pools"}))
          << c.name;
      // virt-install, the one command run with the observer, runs unless no pool
      // could be listed.
      EXPECT_EQ(progress.finishes, c["virsh-fails"] == "pool-list" ? 0 : 1) << c.name;
    }
  }
}

}  // namespace
}  // namespace orvane::testing
