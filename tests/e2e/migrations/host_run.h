#pragma once
// What the real-host migration tests and drills share: running the built program,
// reading its console and outcome records, making disks that hold real data, and
// leaving libvirt as it was found. Header-only: the e2e executable compiles only
// *_test.cc files and the ESP disk builder.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "process/command_runner.h"
#include "support/console_lines.h"
#include "support/private_log_dir.h"
#include "support/temp_dir.h"
#include "support/vmware_folder.h"

namespace orvane::testing {

/// The lines that follow `first` (exclusive), up to `count` of them.
inline std::vector<std::string> linesAfter(const std::vector<std::string>& lines,
                                           const std::string& first, std::size_t count) {
  auto it = std::find(lines.begin(), lines.end(), first);
  if (it == lines.end()) return {};
  ++it;
  const auto n =
      std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(count), lines.end() - it);
  return std::vector<std::string>(it, it + n);
}

inline bool domainDefined(const std::string& name) {
  return runCommand({"virsh", "dominfo", name}).ok();
}

inline std::string domainXml(const std::string& name) {
  return runCommand({"virsh", "dumpxml", name}).stdoutText;
}

/// Removes a domain this test may have left, with its UEFI variable store.
inline void undefineIfDefined(const std::string& name) {
  if (!domainDefined(name)) return;
  if (!runCommand({"virsh", "undefine", name, "--nvram"}).ok()) {
    runCommand({"virsh", "undefine", name});
  }
}

/// Regular files directly in `dir`, by name, sorted.
inline std::vector<std::string> fileNamesIn(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// Overwrites the whole of an existing file with non-zero data that differs from
/// block to block, so a converter has every byte to copy and none to skip.
inline void fillWithData(const std::string& path, char seed) {
  const std::uintmax_t size = std::filesystem::file_size(path);
  std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
  std::string block(1 << 20, '\0');
  for (std::uintmax_t offset = 0; offset < size; offset += block.size()) {
    for (std::size_t i = 0; i < block.size(); i += 64) {
      block[i] = static_cast<char>(seed + offset / block.size() + i / 64 % 251 + 1);
      block[i + 1] = static_cast<char>(offset >> 20);
    }
    const auto n = static_cast<std::streamsize>(
        std::min<std::uintmax_t>(block.size(), size - offset));
    out.write(block.data(), n);
  }
}

/// The flat extent that qemu-img makes beside a "monolithicFlat" descriptor.
inline std::string flatExtentOf(const std::string& descriptor) {
  return descriptor.substr(0, descriptor.size() - 5) + "-flat.vmdk";
}

/// A folder whose two flat disks hold data throughout: a small first disk that
/// converts at once, and a second of `secondBytes` during which a drill strikes.
inline std::unique_ptr<VmwareFolder> twoFlatDiskFolder(const std::string& name,
                                                       std::uint64_t secondBytes) {
  VmwareFolderSpec spec;
  spec.displayName = name;
  spec.disks = {VmwareDiskSpec{"scsi0:0", "", 2ULL << 20, "monolithicFlat"},
                VmwareDiskSpec{"scsi0:1", "", secondBytes, "monolithicFlat"}};
  auto folder = std::make_unique<VmwareFolder>(spec);
  fillWithData(flatExtentOf(folder->diskPaths()[0]), 'a');
  fillWithData(flatExtentOf(folder->diskPaths()[1]), 'b');
  return folder;
}

/// sha256 of `bytes`, as sha256sum prints it.
inline std::string sha256Of(const std::string& bytes) {
  CommandOptions options;
  options.stdinData = bytes;
  return runCommand({"sha256sum"}, options).stdoutText.substr(0, 64);
}

/// Escapes a text as libvirt writes it into an XML attribute.
inline std::string xmlAttribute(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

/// Base of every real-host test here: skips without libvirt, isolates the logs,
/// names each test's VMs after the process so that runs never collide, and
/// undefines those VMs however the test ended.
class HostRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runCommand({"virsh", "version"}).ok()) {
      GTEST_SKIP() << "libvirtd does not answer: run scripts/host-setup first";
    }
    const std::string why = isolateLogDir();
    if (!why.empty()) GTEST_SKIP() << "needs a private mount namespace: " << why;
  }

  void TearDown() override {
    for (const std::string& name : vmNames_) undefineIfDefined(name);
  }

  /// "orvane-e2e-<what>-<pid>", undefined again in TearDown.
  std::string vmName(const std::string& what) {
    vmNames_.push_back("orvane-e2e-" + what + "-" + std::to_string(getpid()));
    return vmNames_.back();
  }

  /// The program with `args`, standard input closed.
  static CommandResult runProgram(std::vector<std::string> args) {
    args.insert(args.begin(), ORVANE_BINARY);
    return runCommand(args);
  }

  /// Starts the program in the background of a /bin/sh script, runs `action` there
  /// (sh code that sees the program's pid as $pid), then waits for the program.
  /// The result's exit code is the program's, as the shell's `wait` reports it.
  /// The program starts with SIGINT at its default, as from a terminal (a shell
  /// without job control would have it ignored). With `ownGroup` it also leads a
  /// process group of its own, as a foreground job does, so that
  /// `/bin/kill -s INT -- -$pid` acts like Ctrl-C at a terminal.
  static CommandResult runProgramWhile(const std::string& action,
                                       std::vector<std::string> args,
                                       bool ownGroup = false) {
    const std::string script = std::string(ownGroup ? "setsid " : "") +
                               "env --default-signal=INT \"$0\" \"$@\" & pid=$!\n" +
                               action + "\nwait $pid";
    std::vector<std::string> argv = {"sh", "-c", script, ORVANE_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return runCommand(argv);
  }

 private:
  std::vector<std::string> vmNames_;
};

/// sh code for runProgramWhile: waits until the program has a running child named
/// `child` and leaves its pid in $child; gives up when the program has exited.
inline std::string waitForChild(const std::string& child) {
  return "until child=$(pgrep -P $pid -x " + child +
         "); do\n"
         "  kill -0 $pid 2>/dev/null || break\n"
         "  sleep 0.05\n"
         "done";
}

}  // namespace orvane::testing
