#include "support/vmware_folder.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <stdexcept>

#include "process/command_runner.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

std::string joinArgs(const std::vector<std::string>& argv) {
  std::string out;
  for (const auto& a : argv) out += (out.empty() ? "" : " ") + a;
  return out;
}

/// Runs a tool the folder cannot do without; a failure is the test's failure.
CommandResult runOrThrow(const std::vector<std::string>& argv) {
  CommandResult r = runCommand(argv);
  if (!r.ok()) {
    throw std::runtime_error("`" + joinArgs(argv) + "` failed with exit code " +
                             std::to_string(r.exitCode) + ": " + r.stderrText + r.stdoutText);
  }
  return r;
}

/// The controller of a disk key: "scsi0" for "scsi0:1".
std::string controllerOf(const std::string& key) { return key.substr(0, key.find(':')); }

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

/// VMware's adapter type for a disk on this controller: what its descriptor says.
std::string adapterTypeFor(const std::string& controller) {
  return startsWith(controller, "scsi") ? "lsilogic" : "ide";
}

/// A stable 16-byte identity for uuid.bios, so a folder made twice reads the same.
std::string biosUuidFor(const std::string& seed) {
  std::uint64_t h = 1469598103934665603ULL;  // FNV-1a
  std::string bytes;
  for (int round = 0; round < 2; ++round) {
    for (unsigned char c : seed + static_cast<char>('0' + round)) {
      h = (h ^ c) * 1099511628211ULL;
    }
    for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<char>((h >> (8 * i)) & 0xff));
  }
  static const char* kHex = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    auto b = static_cast<unsigned char>(bytes[i]);
    if (i > 0) out += (i == 8 ? "-" : " ");
    out += kHex[b >> 4];
    out += kHex[b & 0xf];
  }
  return out;
}

void line(std::ostringstream& out, const std::string& key, const std::string& value) {
  out << key << " = \"" << value << "\"\n";
}

}  // namespace

std::string vmwareDiskFileName(const VmwareFolderSpec& spec, std::size_t index) {
  const VmwareDiskSpec& disk = spec.disks.at(index);
  if (!disk.fileName.empty()) return disk.fileName;
  if (index == 0) return spec.displayName + ".vmdk";
  return spec.displayName + "_" + std::to_string(index) + ".vmdk";
}

std::string vmxText(const VmwareFolderSpec& spec) {
  std::ostringstream out;
  line(out, ".encoding", "UTF-8");
  line(out, "config.version", "8");
  line(out, "virtualHW.version", "19");
  line(out, "pciBridge0.present", "TRUE");
  for (int bridge = 4; bridge <= 7; ++bridge) {
    const std::string key = "pciBridge" + std::to_string(bridge);
    line(out, key + ".present", "TRUE");
    line(out, key + ".virtualDev", "pcieRootPort");
    line(out, key + ".functions", "8");
  }
  line(out, "vmci0.present", "TRUE");
  line(out, "hpet0.present", "TRUE");
  line(out, "nvram", spec.displayName + ".nvram");
  line(out, "virtualHW.productCompatibility", "hosted");
  line(out, "powerType.powerOff", "soft");
  line(out, "powerType.powerOn", "soft");
  line(out, "powerType.suspend", "soft");
  line(out, "powerType.reset", "soft");
  line(out, "displayName", spec.displayName);
  line(out, "guestOS", spec.guestOs);
  if (!spec.firmware.empty()) line(out, "firmware", spec.firmware);
  line(out, "tools.syncTime", "FALSE");
  line(out, "numvcpus", std::to_string(spec.numvcpus));
  line(out, "cpuid.coresPerSocket", "1");
  line(out, "memsize", std::to_string(spec.memsize));

  std::set<std::string> usedKeys;
  std::set<std::string> controllersDone;
  for (std::size_t i = 0; i < spec.disks.size(); ++i) {
    const std::string& key = spec.disks[i].controllerKey;
    const std::string controller = controllerOf(key);
    usedKeys.insert(key);
    // IDE channels have no controller entry of their own in VMware's files.
    if (!startsWith(controller, "ide") && controllersDone.insert(controller).second) {
      if (startsWith(controller, "scsi")) line(out, controller + ".virtualDev", "lsisas1068");
      line(out, controller + ".present", "TRUE");
    }
    line(out, key + ".fileName", vmwareDiskFileName(spec, i));
    line(out, key + ".present", "TRUE");
  }

  // A CD-ROM drive is in nearly every real VM; it must never be taken for a disk.
  std::string cdKey = "ide1:0";
  for (const char* candidate : {"ide1:0", "sata0:1", "sata1:0"}) {
    if (usedKeys.count(candidate) == 0) {
      cdKey = candidate;
      break;
    }
  }
  line(out, cdKey + ".deviceType", "cdrom-raw");
  line(out, cdKey + ".fileName", "auto detect");
  line(out, cdKey + ".startConnected", "FALSE");
  line(out, cdKey + ".present", "TRUE");
  line(out, "floppy0.present", "FALSE");

  for (std::size_t n = 0; n < spec.nicMacs.size(); ++n) {
    const std::string key = "ethernet" + std::to_string(n);
    line(out, key + ".connectionType", "nat");
    line(out, key + ".addressType", "generated");
    line(out, key + ".virtualDev", spec.nicVirtualDev);
    line(out, key + ".present", "TRUE");
    line(out, key + ".generatedAddress", spec.nicMacs[n]);
    line(out, key + ".generatedAddressOffset", std::to_string(10 * n));
  }

  line(out, "usb.present", "TRUE");
  line(out, "ehci.present", "TRUE");
  line(out, "svga.graphicsMemoryKB", "262144");
  const std::string uuid = biosUuidFor(spec.displayName);
  line(out, "uuid.bios", uuid);
  line(out, "uuid.location", uuid);
  line(out, "extendedConfigFile", spec.displayName + ".vmxf");
  line(out, "cleanShutdown", "TRUE");
  for (const auto& extra : spec.extraLines) out << extra << "\n";
  return out.str();
}

VmwareFolder::VmwareFolder(const VmwareFolderSpec& spec) : owner_("orvane-vmware") {
  const std::string folderName = !spec.folderName.empty()    ? spec.folderName
                                 : !spec.displayName.empty() ? spec.displayName
                                                             : "vm";
  path_ = owner_.file(folderName);
  fs::create_directories(path_);
  vmxPath_ = path_ + "/" +
             (spec.vmxFileName.empty() ? spec.displayName + ".vmx" : spec.vmxFileName);
  writeFile(vmxPath_, vmxText(spec));
  // Workstation leaves an empty snapshot database beside every .vmx.
  const std::string vmsd = vmxPath_.substr(0, vmxPath_.rfind('.')) + ".vmsd";
  if (vmsd != vmxPath_) writeFile(vmsd, "");

  for (std::size_t i = 0; i < spec.disks.size(); ++i) {
    const VmwareDiskSpec& disk = spec.disks[i];
    const std::string target = path_ + "/" + vmwareDiskFileName(spec, i);
    const std::string options = "subformat=" + disk.subformat +
                                ",adapter_type=" + adapterTypeFor(controllerOf(disk.controllerKey));
    if (disk.rawImage.empty()) {
      runOrThrow({"qemu-img", "create", "-q", "-f", "vmdk", "-o", options, target,
                  std::to_string(disk.sizeBytes)});
    } else {
      runOrThrow({"qemu-img", "convert", "-f", "raw", "-O", "vmdk", "-o", options, disk.rawImage,
                  target});
    }
    diskPaths_.push_back(target);
  }

  for (const auto& entry : fs::recursive_directory_iterator(path_)) {
    if (entry.is_regular_file()) files_.push_back(entry.path().string());
  }
  std::sort(files_.begin(), files_.end());
}

FolderSnapshot snapshotFolder(const std::string& dir) {
  FolderSnapshot snap;
  std::vector<std::string> argv = {"sha256sum", "--zero"};
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (!entry.is_regular_file()) continue;
    const std::string full = entry.path().string();
    struct stat st{};
    if (::stat(full.c_str(), &st) != 0) throw std::runtime_error("cannot stat " + full);
    FileState state;
    state.size = static_cast<std::uintmax_t>(st.st_size);
    state.mtimeNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    snap[fs::relative(entry.path(), dir).string()] = state;
    argv.push_back(full);
  }
  if (snap.empty()) return snap;

  // --zero: NUL-terminated records and no escaping of odd file names.
  const std::string out = runOrThrow(argv).stdoutText;
  std::size_t pos = 0;
  while (pos < out.size()) {
    const std::size_t end = out.find('\0', pos);
    const std::string record = out.substr(pos, end - pos);
    pos = (end == std::string::npos) ? out.size() : end + 1;
    const std::size_t sep = record.find("  ");
    if (sep == std::string::npos) continue;
    const std::string rel = fs::relative(record.substr(sep + 2), dir).string();
    auto it = snap.find(rel);
    if (it != snap.end()) it->second.sha256 = record.substr(0, sep);
  }
  for (const auto& [rel, state] : snap) {
    if (state.sha256.empty()) throw std::runtime_error("sha256sum gave no hash for " + rel);
  }
  return snap;
}

std::string describeDifferences(const FolderSnapshot& before, const FolderSnapshot& after) {
  std::string out;
  for (const auto& [name, old] : before) {
    auto it = after.find(name);
    if (it == after.end()) {
      out += "removed: " + name + "\n";
      continue;
    }
    if (it->second == old) continue;
    std::string what;
    if (it->second.size != old.size) what += "size";
    if (it->second.sha256 != old.sha256) what += (what.empty() ? "" : ", ") + std::string("sha256");
    if (it->second.mtimeNs != old.mtimeNs) what += (what.empty() ? "" : ", ") + std::string("mtime");
    out += "changed: " + name + " (" + what + ")\n";
  }
  for (const auto& [name, state] : after) {
    if (before.count(name) == 0) out += "added: " + name + "\n";
  }
  return out;
}

}  // namespace orvane::testing
