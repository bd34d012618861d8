// What the reader makes of each .vmx in data/ (as VMware products, OVF imports and
// hand edits leave them) and of small texts that pin the line grammar down.
#include "vmx/vmx_reader.h"

#include "support/tables.h"

namespace orvane::testing {
namespace {

const std::string kData = std::string(ORVANE_SOURCE_DIR) + "/tests/vmx/data";

/// The fields that differ from an empty file's, as "key: value" lines.
std::string render(const VmxData& d) {
  std::vector<std::string> disks, flags;
  for (std::size_t i = 0; i < d.vmdkFiles.size(); ++i) {
    disks.push_back(d.diskDevices.at(i) + " " + d.vmdkFiles[i]);
  }
  for (const auto& [on, flag] : {std::pair{d.hasVtpm, "vtpm"},
                                 {d.hasPassthrough, "passthrough"},
                                 {d.hasSerial, "serial"},
                                 {d.encrypted, "encrypted"},
                                 {d.hddOrderApplied, "hddorder"}}) {
    if (on) flags.push_back(flag);
  }
  std::string out;
  for (const auto& [key, value, shown] :
       {std::tuple{"name", d.displayName, !d.displayName.empty()},
        {"cpus", d.numVcpus, d.numVcpus != "1"},
        {"memory", d.memSize, !d.memSize.empty()},
        {"guest", d.guestOs, !d.guestOs.empty()},
        {"firmware", d.firmware, d.firmware != "bios"},
        {"disks", joined(disks), d.vmdkFiles.size() + d.diskDevices.size() > 0},
        {"macs", joined(d.macAddresses), !d.macAddresses.empty()},
        {"snapshots", joined(d.snapDisks), !d.snapDisks.empty()},
        {"flags", joined(flags, " "), !flags.empty()}}) {
    if (shown) out += std::string(key) + ": " + value + "\n";
  }
  return replaced(out, kData, "{dir}");
}

TEST(VmxReader, EachCaseReadsAsExpected) {
  for (const char* table : {"/files.txt", "/line_grammar.txt"}) {
    for (const Case& c : readCases(kData + table)) {
      std::string got;
      try {
        got = c["file"].empty()
                  ? render(
                        parseVmxText(c["vmx"], c["folder"].empty() ? "/vm" : c["folder"]))
                  : render(parseVmx(kData + "/" + c["file"], kData));
      } catch (const V2vError& e) {
        got = replaced(std::string("error: ") + e.what() + "\n", kData, "{dir}");
      }
      EXPECT_EQ(got, c.text({"name", "cpus", "memory", "guest", "firmware", "disks",
                             "macs", "snapshots", "flags", "error"}))
          << c.name;
      // Line ends are VMware's or an editor's choice, never a meaning.
      const std::string lf = replaced(readFile(kData + "/" + c["file"]), "\r", "");
      EXPECT_EQ(
          lf.empty() ? got : render(parseVmxText(replaced(lf, "\n", "\r\n"), kData)),
          got);
    }
  }
}

// A unit number thousands of digits long once overflowed the key matcher's stack.
TEST(VmxReader, KeysWithHugeNumbersStillMatch) {
  const std::string n(200000, '7'), disk = "sata" + n + ":" + n;
  EXPECT_EQ(
      render(parseVmxText("ethernet" + n + ".generatedAddress = \"00:0c:29:00:00:01\"\n" +
                              disk + ".fileName = \"d.vmdk\"\n" + disk +
                              ".present = \"TRUE\"\nserial" + n + ".present = \"TRUE\"",
                          "/vm")),
      "disks: " + disk + " /vm/d.vmdk\nmacs: 00:0c:29:00:00:01\nflags: serial\n");
}

}  // namespace
}  // namespace orvane::testing
