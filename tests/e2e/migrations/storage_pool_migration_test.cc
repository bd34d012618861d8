// The host's storage pools after real runs into a new output directory: however the
// run ends, no pool is left for that directory (virt-install makes one as it works),
// and runs of different VMs into one directory at once all succeed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

/// Every pool whose directory lies under `root`, with its state and autostart, one
/// line each. Other tests on this libvirtd may add pools of their own elsewhere.
std::string poolsUnder(const std::string& root) {
  std::string found;
  std::istringstream names(
      runCommand({"virsh", "pool-list", "--all", "--name"}).stdoutText);
  static const std::regex kPath(R"(<path>\s*([^<]*?)\s*</path>)");
  for (std::string name; std::getline(names, name);) {
    if (name.empty()) continue;
    const std::string xml = runCommand({"virsh", "pool-dumpxml", name}).stdoutText;
    std::smatch m;
    if (!std::regex_search(xml, m, kPath) || !m[1].str().starts_with(root)) continue;
    found += name + " " + m[1].str() + " " +
             runCommand({"virsh", "pool-info", name}).stdoutText + "\n";
  }
  return found;
}

/// Removes the pools a failing test left under `root`, so that a rerun starts clean.
void removePoolsUnder(const std::string& root) {
  std::istringstream names(
      runCommand({"virsh", "pool-list", "--all", "--name"}).stdoutText);
  for (std::string name; std::getline(names, name);) {
    if (name.empty()) continue;
    const std::string xml = runCommand({"virsh", "pool-dumpxml", name}).stdoutText;
    if (xml.find("<path>" + root) == std::string::npos) continue;
    runCommand({"virsh", "pool-destroy", name});
    runCommand({"virsh", "pool-undefine", name});
  }
}

class StoragePoolsOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    // A basename of its own, so that the pool virt-install would name after it is
    // this test's and no one else's.
    out_ = root_.file("orvane-e2e-host-out-" + std::to_string(getpid()));
    fs::create_directory(out_);
    ASSERT_EQ("", poolsUnder(root_.path()));
  }

  void TearDown() override {
    HostRunTest::TearDown();
    removePoolsUnder(root_.path());
  }

  std::unique_ptr<VmwareFolder> folder(const std::string& name, int vcpus = 1) {
    VmwareFolderSpec spec;
    spec.displayName = name;
    spec.numvcpus = vcpus;
    spec.nicMacs = {};
    return std::make_unique<VmwareFolder>(spec);
  }

  TempDir root_{"orvane-e2e-host-pools"};
  std::string out_;
};

TEST_F(StoragePoolsOnHost, ARunIntoANewDirectoryLeavesNoPool) {
  auto source = folder("hostpool01");
  const std::string vm = vmName("host-pool");
  CommandResult r = runProgram({"-p", source->path(), "-o", out_, "-n", vm, "--yes"});
  ASSERT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;
  EXPECT_TRUE(domainDefined(vm));
  EXPECT_TRUE(fs::is_regular_file(out_ + "/" + vm + ".qcow2"));
  EXPECT_EQ("", poolsUnder(root_.path()));
}

// libvirt refuses the definition (too many vCPUs) after virt-install has run.
TEST_F(StoragePoolsOnHost, AFailingRunLeavesNoPool) {
  auto source = folder("hostpool02", 9999);
  const std::string vm = vmName("host-pool-fail");
  CommandResult r = runProgram({"-p", source->path(), "-o", out_, "-n", vm, "--yes"});
  ASSERT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
  EXPECT_TRUE(hasLine(consoleLines(r.stderrText), "ERROR: virsh define failed:"));
  EXPECT_EQ("", poolsUnder(root_.path()));
}

// Ctrl-C reaches the program and virt-install together, at the moment virt-install's
// pool exists; and the program alone, which lets virt-install finish first.
TEST_F(StoragePoolsOnHost, AnInterruptedRunLeavesNoPool) {
  for (const bool wholeGroup : {true, false}) {
    SCOPED_TRACE(wholeGroup ? "SIGINT to the process group" : "SIGINT to the program");
    auto source = folder("hostpool03");
    const std::string vm = vmName(wholeGroup ? "host-pool-int-group" : "host-pool-int");
    const std::string pool = fs::path(out_).filename().string();
    const std::string action =
        "until virsh pool-list --all --name | grep -x '" + pool +
        "' >/dev/null; do\n"
        "  kill -0 $pid 2>/dev/null || break\n"
        "  sleep 0.02\n"
        "done\n" +
        (wholeGroup ? "/bin/kill -s INT -- -$pid" : "kill -INT $pid");
    CommandResult r = runProgramWhile(
        action, {"-p", source->path(), "-o", out_, "-n", vm, "--yes"}, wholeGroup);
    EXPECT_NE(0, r.exitCode) << r.stdoutText << r.stderrText;
    EXPECT_EQ("", poolsUnder(root_.path()));
    undefineIfDefined(vm);
    std::error_code ec;
    fs::remove(out_ + "/" + vm + ".qcow2", ec);
  }
}

/// `count` runs of different VMs started at once into `dir` ("" for the default pool);
/// each must exit 0 with its VM defined and its image equal to its source disk.
void runInParallel(const std::string& dir, int count,
                   const std::function<std::string(const std::string&)>& vmNameFor,
                   std::vector<std::string>& images) {
  std::vector<std::unique_ptr<VmwareFolder>> sources;
  std::string script;
  std::vector<std::string> vms;
  for (int i = 0; i < count; ++i) {
    VmwareFolderSpec spec;
    spec.displayName = "hostpar" + std::to_string(i);
    spec.nicMacs = {};
    spec.disks = {VmwareDiskSpec{"scsi0:0", "", 8ULL << 20, "monolithicFlat"}};
    sources.push_back(std::make_unique<VmwareFolder>(spec));
    fillWithData(flatExtentOf(sources.back()->diskPaths()[0]),
                 static_cast<char>('a' + i));
    vms.push_back(vmNameFor("host-par" + std::to_string(i)));
    script += "\"$0\" -p '" + sources.back()->path() + "' -n '" + vms.back() + "' " +
              (dir.empty() ? "" : "-o '" + dir + "' ") + "--yes > /dev/null 2>&1 & p" +
              std::to_string(i) + "=$!\n";
  }
  for (int i = 0; i < count; ++i) {
    script += "wait $p" + std::to_string(i) + "; echo \"" + std::to_string(i) + " $?\"\n";
  }
  CommandResult r = runCommand({"sh", "-c", script, ORVANE_BINARY});
  std::istringstream exits(r.stdoutText);
  int index = 0, code = 0, succeeded = 0;
  while (exits >> index >> code) {
    EXPECT_EQ(0, code) << "run " << index << " (" << vms[static_cast<std::size_t>(index)]
                       << ")";
    succeeded += code == 0;
  }
  EXPECT_EQ(count, succeeded) << r.stdoutText << r.stderrText;
  const std::string imageDir = dir.empty() ? "/var/lib/libvirt/images" : dir;
  for (int i = 0; i < count; ++i) {
    const std::string& vm = vms[static_cast<std::size_t>(i)];
    EXPECT_TRUE(domainDefined(vm)) << vm;
    const std::string image = imageDir + "/" + vm + ".qcow2";
    if (fs::exists(image)) images.push_back(image);
    CommandResult same =
        runCommand({"qemu-img", "compare", "-q",
                    sources[static_cast<std::size_t>(i)]->diskPaths()[0], image});
    EXPECT_EQ(0, same.exitCode) << image << ": " << same.stdoutText << same.stderrText;
  }
}

TEST_F(StoragePoolsOnHost, EightRunsAtOnceIntoOneNewDirectoryAllSucceed) {
  std::vector<std::string> images;
  runInParallel(
      out_, 8, [this](const std::string& w) { return vmName(w); }, images);
  EXPECT_EQ(8u, images.size());
  EXPECT_EQ("", poolsUnder(root_.path()));
}

TEST_F(StoragePoolsOnHost, RunsAtOnceIntoTheDefaultPoolAllSucceed) {
  std::vector<std::string> images;
  runInParallel(
      "", 4, [this](const std::string& w) { return vmName(w); }, images);
  for (const std::string& image : images) {
    std::error_code ec;
    fs::remove(image, ec);
  }
  runCommand({"virsh", "pool-refresh", "default"});
  EXPECT_EQ(4u, images.size());
}

}  // namespace
}  // namespace orvane::testing
