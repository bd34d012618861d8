// .vmx files as Workstation, Fusion and ESXi write them (and as OVF imports and
// hand edits leave them), kept in tests/vmx/data with what a reader of each file
// expects in expected.txt. Each is read, and dry-run by the built program with fake
// host tools; adding a style means adding a file and a block, not code.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "guest_profile/guest_profile.h"
#include "process/command_runner.h"
#include "support/console_lines.h"
#include "support/fake_tools.h"
#include "support/private_log_dir.h"
#include "support/temp_dir.h"
#include "vmx/vmx_reader.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

const std::string kDataDir = std::string(ORVANE_SOURCE_DIR) + "/tests/vmx/data";

/// One block of expected.txt: field -> values, in file order.
struct Expectation {
  std::string file;
  std::vector<std::pair<std::string, std::string>> fields;

  std::string get(const std::string& field) const {
    for (const auto& [name, value] : fields) {
      if (name == field) return value;
    }
    return "";
  }
  std::vector<std::string> all(const std::string& field) const {
    std::vector<std::string> values;
    for (const auto& [name, value] : fields) {
      if (name == field) values.push_back(value);
    }
    return values;
  }
};

std::string trimmed(const std::string& s) {
  const std::size_t begin = s.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return s.substr(begin, s.find_last_not_of(" \t\r") + 1 - begin);
}

/// "\xf6" -> the byte 0xf6; the expectations are ASCII, the .vmx files may not be.
std::string unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s.compare(i, 2, "\\x") == 0 && i + 3 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

std::vector<Expectation> readExpectations() {
  std::ifstream in(kDataDir + "/expected.txt");
  std::vector<Expectation> blocks;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string field = line.substr(0, colon);
    // Dry-run texts keep their leading blanks; they are console lines as printed.
    const std::string value = field == "dry-run"
                                  ? line.substr(colon + 2)
                                  : unescape(trimmed(line.substr(colon + 1)));
    if (field == "file") {
      blocks.push_back({value, {}});
    } else if (!blocks.empty()) {
      blocks.back().fields.emplace_back(field, value);
    }
  }
  return blocks;
}

std::string join(const std::vector<std::string>& items, const std::string& separator) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : separator) + item;
  return out;
}

std::string withoutFolder(const std::string& path, const std::string& folder) {
  return path.rfind(folder + "/", 0) == 0 ? path.substr(folder.size() + 1) : path;
}

/// A disk for the dry run: the one kept beside the .vmx, else a consolidated
/// descriptor with its flat extent.
void provideDisk(const std::string& name, const std::string& folder) {
  if (fs::exists(kDataDir + "/" + name)) {
    fs::copy_file(kDataDir + "/" + name, folder + "/" + name);
    return;
  }
  writeFile(folder + "/" + name,
            "# Disk DescriptorFile\nversion=1\nCID=fffffffe\n"
            "parentCID=ffffffff\ncreateType=\"monolithicFlat\"\n"
            "RW 2048 FLAT \"" +
                name + "-flat\" 0\n");
  writeFile(folder + "/" + name + "-flat", std::string(2048 * 512, '\0'));
}

std::string lineEnds(const std::string& text, bool crlf) {
  std::string out;
  for (char c : text) {
    if (c == '\r') continue;
    if (c == '\n' && crlf) out += '\r';
    out += c;
  }
  return out;
}

// libvirt up, the default network active, no domains: what a case gets is due to
// its file alone.
const char* kFakeVirsh = R"(
case "$1" in
  version|net-info) exit 0 ;;
  net-list) echo default ;;
  list) echo ;;
  dominfo) exit 1 ;;
esac
exit 0)";

TEST(VmwareStyles, EachFileReadsAsItsReaderExpects) {
  const std::vector<Expectation> blocks = readExpectations();
  ASSERT_GE(blocks.size(), 8u);
  const std::string isolated = isolateLogDir();
  FakeTools tools;
  tools.add("virsh", kFakeVirsh);
  for (const char* tool : {"qemu-img", "virt-install", "guestfish"})
    tools.add(tool, "exit 0");

  for (const Expectation& e : blocks) {
    SCOPED_TRACE(e.file);
    const VmxData data = parseVmx(kDataDir + "/" + e.file, kDataDir);
    EXPECT_EQ(e.get("name"), data.displayName);
    EXPECT_EQ(e.get("cpus"), data.numVcpus);
    EXPECT_EQ(e.get("memory"), data.memSize);
    EXPECT_EQ(e.get("guest"), trimmed(data.guestOs + " " + osFamily(data.guestOs)));
    EXPECT_EQ(e.get("firmware"), data.firmware);
    std::vector<std::string> disks;
    std::vector<std::string> diskNames;
    for (std::size_t i = 0; i < data.vmdkFiles.size(); ++i) {
      diskNames.push_back(withoutFolder(data.vmdkFiles[i], kDataDir));
      disks.push_back(data.diskDevices.at(i) + " " + diskNames.back());
    }
    EXPECT_EQ(e.get("disks"), join(disks, " | "));
    EXPECT_EQ(e.get("macs"), join(data.macAddresses, " | "));
    EXPECT_EQ(e.get("snapshots"), join(data.snapDisks, " | "));
    std::vector<std::string> flags;
    if (data.hasVtpm) flags.push_back("vtpm");
    if (data.hasPassthrough) flags.push_back("passthrough");
    if (data.hasSerial) flags.push_back("serial");
    if (data.encrypted) flags.push_back("encrypted");
    if (data.hddOrderApplied) flags.push_back("hddorder");
    EXPECT_EQ(e.get("flags"), join(flags, " "));

    // Line ends are VMware's or an editor's choice, never a meaning.
    const std::string text = readFile(kDataDir + "/" + e.file);
    EXPECT_EQ(parseVmxText(lineEnds(text, false), kDataDir),
              parseVmxText(lineEnds(text, true), kDataDir));

    if (!isolated.empty()) continue;  // no private log dir: the reading alone is checked
    TempDir source("orvane-vmx-style");
    TempDir output("orvane-vmx-style-out");
    fs::copy_file(kDataDir + "/" + e.file, source.file(e.file));
    for (const std::string& name : diskNames) {
      if (name.front() != '/') provideDisk(name, source.path());
    }
    const CommandResult r = runCommand({ORVANE_BINARY, "-p", source.path(), "-o",
                                        output.path(), "-n", "vmx-style", "--dry-run"});
    std::vector<std::string> lines = consoleLines(r.stdoutText + r.stderrText);
    const std::string all = r.stdoutText + r.stderrText;
    for (const std::string& expected : e.all("dry-run")) {
      EXPECT_TRUE(hasLine(lines, expected)) << expected << "\n" << all;
    }
    if (data.encrypted) {
      EXPECT_EQ(1, r.exitCode) << all;
      continue;
    }
    const std::string guest = data.guestOs.empty() ? "unknown" : data.guestOs;
    for (const std::string& summary :
         {"  Guest OS     : " + guest + " (family: " + osFamily(data.guestOs) + ")",
          "  Firmware     : " + data.firmware,
          "  Disks        : " + std::to_string(disks.size()),
          "  NICs         : " + std::to_string(data.macAddresses.size())}) {
      EXPECT_TRUE(hasLine(lines, summary)) << summary << "\n" << all;
    }
    // The plan lists the disks in boot order: the first becomes the boot disk.
    std::vector<std::string> expectedPlan;
    for (const std::string& name : diskNames) {
      expectedPlan.push_back(name.front() == '/' ? name : source.path() + "/" + name);
    }
    std::vector<std::string> plan;
    const auto header =
        std::find(lines.begin(), lines.end(), "Disks that would be converted:");
    for (auto it = header;
         it != lines.end() && it + 1 != lines.end() && it + 2 != lines.end() &&
         (it + 2)->rfind("        -> ", 0) == 0;
         it += 2) {
      plan.push_back((it + 1)->substr(2));
    }
    EXPECT_EQ(expectedPlan, plan) << all;
  }
}

}  // namespace
}  // namespace orvane::testing
