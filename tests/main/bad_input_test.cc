// Hostile and broken VMware folders fed to the built program in dry runs, with fake
// host tools on PATH: every one must end in a clear message and an ordinary exit
// code, never in a signal or a sanitizer report. These run again under
// ASan/UBSan, so the inputs are sized to keep the whole file fast there.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "process/command_runner.h"
#include "support/fake_tools.h"
#include "support/private_log_dir.h"
#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

// libvirt up, the default network active, no domains: every check passes, so what
// a case gets is due to its folder alone.
const char* kFakeVirsh = R"(
case "$1" in
  version|net-info) exit 0 ;;
  net-list) echo default ;;
  list) echo ;;
  dominfo) exit 1 ;;
esac
exit 0)";

/// The lines every .vmx starts with, before its devices.
std::string vmxHead(const std::string& name, const std::string& guestOs = "ubuntu-64",
                    const std::string& cpus = "2", const std::string& memMb = "1024") {
  return ".encoding = \"UTF-8\"\nconfig.version = \"8\"\ndisplayName = \"" + name +
         "\"\nguestOS = \"" + guestOs + "\"\nnumvcpus = \"" + cpus + "\"\nmemsize = \"" +
         memMb + "\"\n";
}

std::string diskLines(const std::string& key, const std::string& fileName) {
  return key + ".fileName = \"" + fileName + "\"\n" + key + ".present = \"TRUE\"\n";
}

/// A plain descriptor without a parent, as a consolidated disk has.
const char* kDescriptor =
    "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
    "createType=\"monolithicSparse\"\n";

/// Deterministic bytes of every value, NUL and newline included.
std::string binaryBytes(std::size_t size, std::uint32_t seed) {
  std::string out(size, '\0');
  for (char& c : out) {
    seed = seed * 1664525u + 1013904223u;
    c = static_cast<char>(seed >> 24);
  }
  return out;
}

/// Writes `head`, then padding lines up to about `bytes`: a big file without
/// building it in memory.
void writePaddedVmx(const std::string& path, const std::string& head, std::size_t bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << head;
  const std::string pad = "guestinfo.orvane.padding = \"" + std::string(90, 'p') + "\"\n";
  for (std::size_t written = 0; written < bytes; written += pad.size()) out << pad;
}

struct Case {
  const char* name;
  /// Fills the (empty) source folder.
  std::function<void(const std::string& dir)> setUp;
  int exitCode;
  /// Each must appear somewhere in stdout or stderr; "{src}" stands for the folder.
  std::vector<std::string> expected;
};

class BadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = isolateLogDir();
    if (!why.empty()) GTEST_SKIP() << "needs a private mount namespace: " << why;
    tools_.addRecording("virsh", kFakeVirsh);
    for (const char* tool : {"qemu-img", "virt-install", "guestfish"}) {
      tools_.addRecording(tool, "exit 0");
    }
  }

  /// Runs one case in a fresh source folder and checks everything that must hold
  /// for any input at all.
  void runCase(const Case& c) {
    SCOPED_TRACE(c.name);
    TempDir source("orvane-bad");
    c.setUp(source.path());
    const auto started = std::chrono::steady_clock::now();
    CommandResult r = runCommand(
        {ORVANE_BINARY, "-p", source.path(), "-o", output_.path(), "--dry-run"});
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    // Reported, not asserted: the sizes above were chosen from these numbers.
    RecordProperty(std::string(c.name) + " ms", std::to_string(took.count()));

    const std::string all = r.stdoutText + r.stderrText;
    ASSERT_TRUE(r.exitCode >= 0 && r.exitCode < 128)
        << "ended by a signal or not at all: " << r.exitCode << "\n"
        << tail(all);
    // ASan reports and then exits 1, which alone would pass for a failure exit.
    EXPECT_EQ(std::string::npos, all.find("Sanitizer")) << tail(all);
    EXPECT_EQ(std::string::npos, all.find("runtime error:")) << tail(all);
    EXPECT_EQ(c.exitCode, r.exitCode) << tail(all);
    for (std::string text : c.expected) {
      if (std::size_t at = text.find("{src}"); at != std::string::npos) {
        text.replace(at, 5, source.path());
      }
      EXPECT_NE(std::string::npos, all.find(text)) << "missing: " << text << "\n"
                                                   << tail(all);
    }
    // A dry run starts no converter and no definition, whatever it was fed.
    EXPECT_TRUE(tools_.calls("qemu-img").empty());
    EXPECT_TRUE(tools_.calls("virt-install").empty());
    EXPECT_TRUE(fs::is_empty(output_.path()));
  }

  /// The end of a long output: enough to see what happened.
  static std::string tail(const std::string& text) {
    return text.size() <= 3000 ? text : "..." + text.substr(text.size() - 3000);
  }

  FakeTools tools_;
  TempDir output_{"orvane-bad-out"};
};

TEST_F(BadInputTest, VmxFilesThatAreNotConfigurations) {
  const std::vector<Case> cases = {
      {"empty .vmx",
       [](const std::string& dir) { writeFile(dir + "/vm.vmx", ""); },
       1,
       {"] ERROR: No VMDK disks found in {src}.", "] ERROR: no vmdk"}},
      {"binary .vmx",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx", binaryBytes(256 << 10, 7));
       },
       1,
       {"] ERROR: No VMDK disks found in "}},
      {"NUL bytes between otherwise good lines",
       [](const std::string& dir) {
         std::string nuls("\0\0\0\n", 4);
         writeFile(dir + "/vm.vmx", nuls + vmxHead("web01") + nuls +
                                        diskLines("sata0:0", "web01.vmdk") + nuls);
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       0,
       {"VM name:        web01",
        "(Dry run. No changes made. A real run would proceed.)"}},
      {"NUL byte inside the display name",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead(std::string("web\0"
                                                        "01",
                                                        5)) +
                                        diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       1,
       {"compatible VM name (it contains spaces or special characters).",
        "Re-run with --vm-name to set a valid name."}},
  };
  for (const Case& c : cases) runCase(c);
}

TEST_F(BadInputTest, VmxFilesOfAbsurdSize) {
  const std::string threeMb(3 << 20, 'x');
  const std::vector<Case> cases = {
      // Refused from its size alone: sparse, so nothing but the size says 300 MB.
      {"300 MB .vmx",
       [](const std::string& dir) {
         writeFile(dir + "/big.vmx",
                   vmxHead("big01") + diskLines("sata0:0", "big01.vmdk"));
         fs::resize_file(dir + "/big.vmx", 300 << 20);
         writeFile(dir + "/big01.vmdk", kDescriptor);
       },
       1,
       {"] ERROR: The VMX file {src}/big.vmx is 314572800 bytes; a VMware configuration "
        "file is far smaller, and orvane-v2v",
        "] ERROR: reads one of at most 4194304 bytes (4 MiB). Check that it is the VM's "
        "own .vmx file."}},
      {"a .vmx just over 4 MiB",
       [](const std::string& dir) {
         writePaddedVmx(dir + "/big.vmx",
                        vmxHead("big01") + diskLines("sata0:0", "big01.vmdk"), 4 << 20);
         writeFile(dir + "/big01.vmdk", kDescriptor);
       },
       1,
       {"] ERROR: The VMX file {src}/big.vmx is 4194"}},
      {"a 3 MB value",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead("web01") + "annotation = \"" + threeMb +
                                        "\"\n" + diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       0,
       {"(Dry run. No changes made. A real run would proceed.)"}},
      {"a 3 MB line without a newline at the end of the file",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("sata0:0", "web01.vmdk") + threeMb);
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       0,
       {"(Dry run. No changes made. A real run would proceed.)"}},
  };
  for (const Case& c : cases) runCase(c);
}

// Keys the reader matches against patterns: a long run of digits must be read,
// not exhaust the stack of a backtracking matcher.
TEST_F(BadInputTest, VmxKeysWithHugeNumbers) {
  const std::string longDigits(1 << 20, '7');
  const std::vector<Case> cases = {
      {"a disk key with a million-digit unit",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("scsi0:" + longDigits, "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       0,
       {"(Dry run. No changes made. A real run would proceed.)"}},
      {"a NIC key with a million-digit index",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("sata0:0", "web01.vmdk") + "ethernet" +
                       longDigits + ".generatedAddress = \"00:50:56:01:02:03\"\n");
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       0,
       {"(Dry run. No changes made. A real run would proceed.)"}},
  };
  for (const Case& c : cases) runCase(c);
}

// Numbers the ingest step must check digit by digit: a million digits is out of
// range for the conversion, which the driver reports as an unexpected error.
TEST_F(BadInputTest, VmxNumbersWithAMillionDigits) {
  const std::string longDigits(1 << 20, '7');
  const std::vector<Case> cases = {
      {"a CPU count of a million digits",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead("web01", "ubuntu-64", longDigits) +
                                        diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       1,
       {"] ERROR: Unexpected error: stoi"}},
      {"a memory size of a million digits",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead("web01", "ubuntu-64", "2", longDigits) +
                                        diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       1,
       {"] ERROR: Unexpected error: stoll"}},
  };
  for (const Case& c : cases) runCase(c);
}

TEST_F(BadInputTest, DiskEntriesOfEveryKind) {
  const std::vector<Case> cases = {
      {"thousands of disks",
       [](const std::string& dir) {
         std::string vmx = vmxHead("many");
         for (int i = 0; i < 2000; ++i) {
           const std::string file = "many-" + std::to_string(i) + ".vmdk";
           vmx += diskLines(
               "sata" + std::to_string(i / 30) + ":" + std::to_string(i % 30), file);
           writeFile(dir + "/" + file, kDescriptor);
         }
         writeFile(dir + "/many.vmx", vmx);
       },
       0,
       {"        -> ", "/many-sd1999.qcow2  (sd1999)",
        "(Dry run. No changes made. A real run would proceed.)"}},
      {"thousands of disks on a guest that needs IDE",
       [](const std::string& dir) {
         std::string vmx = vmxHead("old", "windows7srv-64");
         for (int i = 0; i < 2000; ++i) {
           vmx += diskLines("ide" + std::to_string(i / 2) + ":" + std::to_string(i % 2),
                            "old-" + std::to_string(i) + ".vmdk");
         }
         writeFile(dir + "/old.vmx", vmx);
       },
       1,
       {"  - This pre-Windows-8 guest must use the IDE bus, but IDE supports at most 4 "
        "disks "
        "and this VM has 2000. Not supported."}},
      // Named in the plan exactly as the .vmx gives them, and each missing one
      // listed with the key that names it.
      {"disks outside the folder and missing",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("sata0:0", "../outside.vmdk") +
                       diskLines("sata0:1", "/nonexistent/orvane/x.vmdk") +
                       diskLines("scsi0:1", "nu-missing.vmdk"));
       },
       1,
       {"  {src}/../outside.vmdk\n", "  /nonexistent/orvane/x.vmdk\n",
        "  {src}/nu-missing.vmdk\n",
        "  - Disk file not found: {src}/../outside.vmdk (sata0:0.fileName in the .vmx); "
        "copy it into the VM folder or correct the .vmx, then re-run.\n",
        "  - Disk file not found: /nonexistent/orvane/x.vmdk (sata0:1.fileName in the "
        ".vmx);",
        "  - Disk file not found: {src}/nu-missing.vmdk (scsi0:1.fileName in the .vmx);",
        "Issues -- a real run would FAIL:"}},
      // Opening a FIFO waits for a writer: the dry run must end without one.
      {"a disk that is a FIFO",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead("web01") + diskLines("sata0:0", "a.vmdk"));
         mkfifo((dir + "/a.vmdk").c_str(), 0600);
       },
       1,
       {"  - Disk file is a FIFO (named pipe), not a regular file: {src}/a.vmdk "
        "(sata0:0.fileName in the .vmx).\n    Put the real disk file in its place, then "
        "re-run."}},
  };
  for (const Case& c : cases) runCase(c);
}

TEST_F(BadInputTest, DescriptorsThatAreHugeOrBinary) {
  // Sparse: no disk space used, and only its first 64 KiB may ever be read.
  const std::uintmax_t huge = std::uintmax_t{4} << 40;
  const std::vector<Case> cases = {
      // Not a snapshot (the parent line is not read), but qemu-img would read on
      // past the first 64 KiB, so the text that may be checked is not all there is.
      {"a 4 TiB descriptor with its parent named beyond the first 64 KiB",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk",
                   kDescriptor + std::string(128 << 10, '#') + "\nparentCID=1a2b3c4d\n");
         fs::resize_file(dir + "/web01.vmdk", huge);
       },
       1,
       {"  - Disk {src}/web01.vmdk (sata0:0.fileName in the .vmx) has a descriptor that "
        "does not end within its first 64 KiB; VMware writes far smaller ones."}},
      {"a binary descriptor",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", binaryBytes(1 << 20, 11));
       },
       0,
       {"(Dry run. No changes made. A real run would proceed.)"}},
      {"a binary descriptor that names a parent",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx",
                   vmxHead("web01") + diskLines("sata0:0", "web01.vmdk"));
         writeFile(dir + "/web01.vmdk", binaryBytes(4096, 13) + "\nparentCID=1a2b3c4d\n" +
                                            binaryBytes(4096, 17));
       },
       1,
       {"  - This VM is running on a snapshot (or is a linked clone). These disk(s) are "
        "deltas on a parent chain: web01.vmdk"}},
  };
  for (const Case& c : cases) runCase(c);

  // The free-space estimate counts the descriptor's size as it stands.
  std::error_code ec;
  if (fs::space(output_.path(), ec).available < huge && !ec) {
    TempDir source("orvane-bad");
    cases[0].setUp(source.path());
    CommandResult r = runCommand(
        {ORVANE_BINARY, "-p", source.path(), "-o", output_.path(), "--dry-run"});
    EXPECT_NE(std::string::npos,
              r.stderrText.find("  total ~4194304 MB. The conversion may "
                                "not fit (qcow2 is usually"))
        << r.stderrText;
  }
}

TEST_F(BadInputTest, DescriptorsThatReachOutOfTheFolder) {
  TempDir host("orvane-bad-disks-host");
  writeFile(host.file("secret.raw"), std::string(2048 * 512, 's'));
  const std::vector<Case> cases = {
      {"a flat extent on a host file",
       [&](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead("web01") + diskLines("scsi0:0", "evil.vmdk"));
         writeFile(dir + "/evil.vmdk",
                   "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                   "createType=\"monolithicFlat\"\nRW 2048 FLAT \"" +
                       host.file("secret.raw") + "\" 0\n");
       },
       1,
       {"  - Disk {src}/evil.vmdk (scsi0:0.fileName in the .vmx) names an extent outside "
        "its folder: \"" +
            host.file("secret.raw") + "\" is an absolute path.",
        "    A disk's extents must be files beside its descriptor; orvane-v2v reads no "
        "other file of this host."}},
      {"a raw device mapping",
       [](const std::string& dir) {
         writeFile(dir + "/vm.vmx", vmxHead("web01") + diskLines("scsi0:0", "rdm.vmdk"));
         writeFile(dir + "/rdm.vmdk",
                   "# Disk DescriptorFile\ncreateType=\"vmfsRawDeviceMap\"\n"
                   "RW 2048 VMFSRAW \"rdm-rdm.vmdk\"\n");
         writeFile(dir + "/rdm-rdm.vmdk", std::string(512, '\0'));
       },
       1,
       {"  - Disk {src}/rdm.vmdk (scsi0:0.fileName in the .vmx) is a raw device mapping "
        "(createType \"vmfsRawDeviceMap\")"}},
  };
  for (const Case& c : cases) runCase(c);
}

TEST_F(BadInputTest, VmxSymlinks) {
  TempDir elsewhere("orvane-bad-target");
  const std::string target = elsewhere.file("real.vmx");
  writeFile(target, vmxHead("web01") + diskLines("sata0:0", "web01.vmdk"));
  const std::vector<Case> cases = {
      {"a .vmx that is a symlink to a file",
       [&](const std::string& dir) {
         fs::create_symlink(target, dir + "/web01.vmx");
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       0,
       {"(Dry run. No changes made. A real run would proceed.)"}},
      {"a dangling .vmx symlink",
       [&](const std::string& dir) {
         fs::create_symlink(elsewhere.file("gone.vmx"), dir + "/web01.vmx");
         writeFile(dir + "/web01.vmdk", kDescriptor);
       },
       1,
       {"] ERROR: No .vmx file found in {src} -- this does not look like a VMware VM "
        "folder.",
        "] ERROR: (Hyper-V and OVF/OVA sources are not supported in this version.)"}},
      {"a directory named like a .vmx beside a dangling symlink",
       [&](const std::string& dir) {
         fs::create_directory(dir + "/folder.vmx");
         fs::create_symlink(elsewhere.file("gone.vmx"), dir + "/web01.vmx");
       },
       1,
       {"] ERROR: No .vmx file found in {src} -- this does not look like a VMware VM "
        "folder."}},
  };
  for (const Case& c : cases) runCase(c);
}

}  // namespace
}  // namespace orvane::testing
