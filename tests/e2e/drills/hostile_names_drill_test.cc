// Paths and names full of blanks, quotes, `$(...)`, semicolons and non-ASCII: each
// reaches the real tools as one argument and nothing is run through a shell (a
// `$(touch pwned)` anywhere would leave a file "pwned" in the working directory).
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <sstream>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

const char* kSourceFolder = "src 'q' \"dq\" $(touch pwned); semi Ünïcødé";
// A .vmx value cannot hold a double quote, so the disk's name has none.
const char* kDiskName = "disk 'one' $(touch pwned); é.vmdk";
const char* kVmxName = "my vm; $(touch pwned) ÿ.vmx";
const char* kOutputDir = "out dir $(touch pwned); `touch pwned` ünï";

class HostileNamesOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    // The program and every tool it starts run in an empty directory of our own.
    saved_ = fs::current_path();
    fs::current_path(cwd_.path());
  }

  void TearDown() override {
    HostRunTest::TearDown();
    if (!saved_.empty()) fs::current_path(saved_);
  }

  /// No `$(touch pwned)` was ever executed, here or beside any folder involved.
  void expectNothingRanInAShell(const std::vector<std::string>& dirs) {
    EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(cwd_.path()));
    for (const std::string& dir : dirs) EXPECT_FALSE(fs::exists(dir + "/pwned")) << dir;
  }

  /// Removes a domain that a refusal which no longer holds let the run define. It
  /// is found by its exact name and undefined by UUID: virsh would take "1" for a
  /// domain ID and "-d" for an option.
  static void undefineStray(const std::string& name) {
    std::istringstream uuids(runCommand({"virsh", "list", "--all", "--uuid"}).stdoutText);
    for (std::string uuid; std::getline(uuids, uuid);) {
      if (uuid.empty()) continue;
      const std::string named = runCommand({"virsh", "domname", uuid}).stdoutText;
      if (named.substr(0, named.find('\n')) != name) continue;
      if (!runCommand({"virsh", "undefine", uuid, "--nvram"}).ok()) {
        runCommand({"virsh", "undefine", uuid});
      }
    }
  }

  std::unique_ptr<VmwareFolder> hostileFolder(const std::string& displayName) {
    VmwareFolderSpec spec;
    spec.displayName = displayName;
    spec.folderName = kSourceFolder;
    spec.vmxFileName = kVmxName;
    spec.disks = {VmwareDiskSpec{"scsi0:0", kDiskName}};
    return std::make_unique<VmwareFolder>(spec);
  }

  TempDir cwd_{"orvane-e2e-cwd"};
  fs::path saved_;
};

TEST_F(HostileNamesOnHost, EveryPathReachesTheToolsAsOneArgument) {
  auto folder = hostileFolder("web01");
  const FolderSnapshot before = snapshotFolder(folder->path());
  TempDir outParent("orvane-e2e-out");
  const std::string out = outParent.file(kOutputDir);
  fs::create_directory(out);
  const std::string vm = vmName("names");

  CommandResult r = runProgram({"-p", folder->path(), "-o", out, "-n", vm, "--yes"});
  ASSERT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;
  const std::string image = out + "/" + vm + ".qcow2";
  EXPECT_TRUE(runCommand({"qemu-img", "compare", "-f", "vmdk", "-F", "qcow2",
                          folder->diskPaths()[0], image})
                  .ok());
  const std::string xml = domainXml(vm);
  EXPECT_NE(std::string::npos, xml.find("<source file='" + xmlAttribute(image) + "'/>"))
      << xml;
  EXPECT_NE(std::string::npos, lastRecordFor(vm).find(" result=success "));
  expectNothingRanInAShell(
      {folder->path(), fs::path(folder->path()).parent_path(), out, outParent.path()});
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder->path())));
}

TEST_F(HostileNamesOnHost, UnusableNamesAreRefusedBeforeAnythingIsMade) {
  struct Refusal {
    const char* what;
    std::string displayName;
    std::vector<std::string> nameArgs;
    std::vector<std::string> lines;  ///< consecutive error lines, without stamps
  };
  const std::string given = "web 01; $(touch pwned) 'x' ü";
  const std::string inSource = "db 02; $(touch pwned) 'y' ß";
  const std::string uuid = "6695eb01-f6a4-8304-79aa-97f2502e193f";
  const std::string misread =
      "A VM name must not begin with '-', be a number or have the form of a UUID: virsh "
      "would read it as an option, a domain ID or a UUID.";
  const std::vector<Refusal> refusals = {
      {"--vm-name",
       "web01",
       {"-n", given},
       {"ERROR: The name given with --vm-name is not a valid VM name: '" + given + "'",
        "ERROR: Use only letters, digits, and _ . + -  (no spaces or special "
        "characters).",
        "ERROR: bad vm-name"}},
      {"the source's display name",
       inSource,
       {},
       {"ERROR: The VM name in the source config is '" + inSource + "', which is not a",
        "ERROR: compatible VM name (it contains spaces or special characters).",
        "ERROR: Re-run with --vm-name to set a valid name.",
        "ERROR: bad source vm-name"}},
      // Meant as a dry run ("-n -d"), taken as the name: refused, not migrated.
      {"--vm-name that virt-install would read as an option",
       "web01",
       {"-n", "-d"},
       {"ERROR: The name given with --vm-name is not a valid VM name: '-d'",
        "ERROR: Use only letters, digits, and _ . + -  (no spaces or special "
        "characters).",
        "ERROR: " + misread, "ERROR: bad vm-name"}},
      {"--vm-name that virsh would look up as a UUID",
       "web01",
       {"-n", uuid},
       {"ERROR: The name given with --vm-name is not a valid VM name: '" + uuid + "'",
        "ERROR: Use only letters, digits, and _ . + -  (no spaces or special "
        "characters).",
        "ERROR: " + misread, "ERROR: bad vm-name"}},
      {"a source name that virsh would look up as a domain ID",
       "1",
       {},
       {"ERROR: The VM name in the source config is '1', which is not a",
        "ERROR: compatible VM name (it contains spaces or special characters).",
        "ERROR: " + misread, "ERROR: Re-run with --vm-name to set a valid name.",
        "ERROR: bad source vm-name"}},
  };
  for (const Refusal& c : refusals) {
    SCOPED_TRACE(c.what);
    auto folder = hostileFolder(c.displayName);
    const FolderSnapshot before = snapshotFolder(folder->path());
    TempDir out("orvane-e2e-out");
    std::vector<std::string> args = {"-p", folder->path(), "-o", out.path(), "--yes"};
    args.insert(args.end(), c.nameArgs.begin(), c.nameArgs.end());
    CommandResult r = runProgram(args);
    EXPECT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
    if (r.exitCode == 0)
      undefineStray(c.nameArgs.empty() ? c.displayName : c.nameArgs[1]);
    const std::vector<std::string> errors = consoleLines(r.stderrText);
    EXPECT_EQ(std::vector<std::string>(c.lines.begin() + 1, c.lines.end()),
              linesAfter(errors, c.lines.front(), c.lines.size() - 1))
        << r.stderrText;
    EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(out.path()));
    expectNothingRanInAShell({folder->path(), out.path()});
    EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder->path())));
  }
}

// virt-install reads its --disk value as a quoted, comma-separated list, so a quote
// in the output directory cannot reach it intact. The run must fail cleanly there,
// never define a VM whose disk path was silently changed.
TEST_F(HostileNamesOnHost, QuoteInTheOutputDirectoryFailsCleanly) {
  auto folder = hostileFolder("web01");
  const FolderSnapshot before = snapshotFolder(folder->path());
  TempDir outParent("orvane-e2e-out");
  const std::string out = outParent.file("it's \"quoted\"");
  fs::create_directory(out);
  const std::string vm = vmName("quoted-out");

  CommandResult r = runProgram({"-p", folder->path(), "-o", out, "-n", vm, "--yes"});
  EXPECT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> errors = consoleLines(r.stderrText);
  EXPECT_TRUE(hasLine(errors, "ERROR: virt-install (XML generation) failed:"))
      << r.stderrText;
  EXPECT_TRUE(
      hasLine(errors, "WARN:  Rolling back: deleting " + out + "/" + vm + ".qcow2"));
  EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(out));
  EXPECT_FALSE(domainDefined(vm));
  EXPECT_NE(std::string::npos,
            lastRecordFor(vm).find(" result=failure stage=vm_create "));
  expectNothingRanInAShell({folder->path(), out});
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder->path())));
}

}  // namespace
}  // namespace orvane::testing
