// A power cut after the run said a disk was converted must not lose the image.
// qemu-img closes its output without flushing it, so the program flushes each
// image and its directory itself. Traced with strace: every image is fsync'ed,
// and so is the output directory, before `virsh define` starts.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

// virt-install makes a libvirt pool of each directory it is given a disk in; the
// drill's directories go, so their pools go too.
void removePoolOf(const std::string& dir) {
  const std::string pool = std::filesystem::path(dir).filename().string();
  runCommand({"virsh", "pool-destroy", pool});
  runCommand({"virsh", "pool-undefine", pool});
}

class DurabilityOnHost : public HostRunTest {};

TEST_F(DurabilityOnHost, EveryImageAndItsDirectoryAreFlushedBeforeTheVmIsDefined) {
  if (!runCommand({"strace", "-V"}).ok()) GTEST_SKIP() << "strace missing: run scripts/install-deps";
  const std::unique_ptr<VmwareFolder> source = twoFlatDiskFolder("flush01", 64ULL << 20);
  TempDir out("orvane-e2e-safety-flush");
  TempDir traceDir("orvane-e2e-safety-trace");
  const std::string trace = traceDir.file("trace");
  const std::string vm = vmName("safety-flush");
  // -y names each descriptor's file, so an fsync line says what it flushed; -s keeps
  // whole arguments in the exec lines.
  const CommandResult r =
      runCommand({"strace", "-f", "-y", "-qq", "-s", "4096", "-e",
                  "trace=execve,fsync,fdatasync", "-o", trace, ORVANE_BINARY, "-p", source->path(), "-o", out.path(), "-n", vm,
                  "--yes"});
  ASSERT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;

  std::ifstream in(trace);
  std::string line;
  std::vector<std::string> lines;
  while (std::getline(in, line)) lines.push_back(line);
  const auto define = std::find_if(lines.begin(), lines.end(), [](const std::string& l) {
    return l.find("execve(") != std::string::npos && l.find("\"virsh\", \"define\"") !=
                                                         std::string::npos;
  });
  ASSERT_NE(lines.end(), define) << "no virsh define in the trace";
  for (const std::string& name : {vm + "-sda.qcow2", vm + "-sdb.qcow2"}) {
    const std::string image = out.file(name);
    // The flush of the image must follow the end of its converter: the last
    // qemu-img exec naming it comes before, its fsync between that and define.
    const auto converter = std::find_if(lines.begin(), define, [&](const std::string& l) {
      return l.find("execve(") != std::string::npos && l.find("qemu-img") != std::string::npos &&
             l.find(image) != std::string::npos;
    });
    ASSERT_NE(define, converter) << name;
    const auto flushed = std::find_if(converter, define, [&](const std::string& l) {
      return l.find("fsync(") != std::string::npos && l.find("<" + image + ">) = 0") !=
                                                         std::string::npos;
    });
    EXPECT_NE(define, flushed) << name << " is not flushed before virsh define";
    const auto dirFlushed = std::find_if(flushed, define, [&](const std::string& l) {
      return l.find("fsync(") != std::string::npos &&
             l.find("<" + out.path() + ">) = 0") != std::string::npos;
    });
    EXPECT_NE(define, dirFlushed) << "the directory entry of " << name;
  }
  EXPECT_TRUE(domainDefined(vm));
  undefineIfDefined(vm);
  removePoolOf(out.path());
}

}  // namespace
}  // namespace orvane::testing
