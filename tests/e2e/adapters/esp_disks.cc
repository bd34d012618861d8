#include "e2e/adapters/esp_disks.h"

#include <sstream>

#include "process/command_runner.h"

namespace orvane::testing {
namespace {

constexpr char kEspGptType[] = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
constexpr long kDiskSectors = 64L * 1024 * 1024 / 512;
constexpr long kFirstSector = 2048;
constexpr long kLastUsable = kDiskSectors - 34;  // the backup GPT takes the rest

/// The appliance names the disks in the order they were added.
std::string device(std::size_t disk) {
  return "/dev/sd" + std::string(1, char('a' + disk));
}

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

std::string trim(const std::string& s) {
  std::size_t first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

std::string partitionScript(const std::string& dev, const TestDisk& disk) {
  std::ostringstream s;
  s << "part-init " << dev << " gpt\n";
  const long count = static_cast<long>(disk.partitions.size());
  const long size = (kLastUsable - kFirstSector) / count / 2048 * 2048;
  for (long n = 0; n < count; ++n) {
    long start = kFirstSector + n * size;
    s << "part-add " << dev << " p " << start << " " << start + size - 1 << "\n";
  }
  for (long n = 0; n < count; ++n) {
    const TestPartition& part = disk.partitions[static_cast<std::size_t>(n)];
    std::string partDev = dev + std::to_string(n + 1);
    bool holdsEfi = false;
    for (const auto& file : part.files)
      holdsEfi = holdsEfi || file.first.rfind("/EFI/", 0) == 0;
    if (part.fsType == "vfat" && holdsEfi) {
      s << "part-set-gpt-type " << dev << " " << n + 1 << " " << kEspGptType << "\n";
    }
    s << "mkfs " << part.fsType << " " << partDev << "\n";
    if (part.files.empty()) continue;
    s << "mount " << partDev << " /\n";
    for (const auto& [path, content] : part.files) {
      std::string dir = path.substr(0, path.rfind('/'));
      if (!dir.empty()) s << "mkdir-p " << quoted(dir) << "\n";
      s << "write " << quoted(path) << " " << quoted(content) << "\n";
    }
    s << "umount /\n";
  }
  return s.str();
}

}  // namespace

std::string buildTestDisks(const std::vector<TestDisk>& disks) {
  std::string script;
  for (std::size_t i = 0; i < disks.size(); ++i) {
    const TestDisk& disk = disks[i];
    if (disk.partitions.empty() || disk.partitions.size() > 8)
      return "bad partition count";
    for (const TestPartition& part : disk.partitions) {
      for (const auto& [path, content] : part.files) {
        if (path.empty() || path[0] != '/' ||
            (path + content).find_first_of("\"\\\n") != std::string::npos) {
          return "unsupported file " + path;
        }
      }
    }
    CommandResult created =
        runCommand({"qemu-img", "create", "-q", "-f", "qcow2", disk.path, "64M"});
    if (!created.ok()) return "qemu-img create " + disk.path + ": " + created.stderrText;
    script += "add-drive " + quoted(disk.path) + " format:qcow2\n";
  }
  script += "run\n";
  for (std::size_t i = 0; i < disks.size(); ++i)
    script += partitionScript(device(i), disks[i]);

  CommandOptions options;
  options.stdinData = script;
  CommandResult r = runCommand({"guestfish"}, options);
  if (!r.ok())
    return "guestfish (exit " + std::to_string(r.exitCode) + "): " + r.stderrText;
  return "";
}

std::vector<std::string> queryDisks(const std::vector<std::string>& images,
                                    const std::vector<DiskQuery>& queries) {
  std::string script;
  for (const std::string& image : images) {
    script += "add-drive " + quoted(image) + " readonly:true format:qcow2\n";
  }
  script += "run\n";
  // A leading "-" lets guestfish go on after a failing command, so one missing
  // file does not cost another launch; the markers tell the answers apart.
  for (std::size_t q = 0; q < queries.size(); ++q) {
    const DiskQuery& query = queries[q];
    script +=
        "-mount-ro " + device(query.disk) + std::to_string(query.partition) + " /\n";
    script += "echo @@q" + std::to_string(q) + "\n";
    script += "-" + query.command + "\n";
    script += "-umount /\n";
  }
  CommandOptions options;
  options.stdinData = script;
  CommandResult r = runCommand({"guestfish"}, options);

  std::vector<std::string> answers(queries.size());
  std::vector<bool> seen(queries.size(), false);
  std::istringstream lines(r.stdoutText);
  std::size_t current = queries.size();
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("@@q", 0) == 0) {
      current = std::stoul(line.substr(3));
      if (current < queries.size()) seen[current] = true;
      continue;
    }
    if (current < queries.size()) answers[current] += line + "\n";
  }
  for (bool s : seen) {
    if (!s) return {};
  }
  for (std::string& a : answers) a = trim(a);
  return answers;
}

}  // namespace orvane::testing
