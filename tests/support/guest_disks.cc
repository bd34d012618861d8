#include "support/guest_disks.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "process/command_runner.h"
#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCacheRoot = "/var/tmp/orvane-guest-disks";

std::string builderScript() {
  return std::string(ORVANE_SOURCE_DIR) + "/tests/e2e/guests/build-guest-disk.sh";
}

/// "6.1.0-9" < "6.1.0-10": runs of digits compare as numbers.
bool versionLess(const std::string& a, const std::string& b) {
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (std::isdigit(static_cast<unsigned char>(a[i])) &&
        std::isdigit(static_cast<unsigned char>(b[j]))) {
      std::size_t ei = i, ej = j;
      while (ei < a.size() && std::isdigit(static_cast<unsigned char>(a[ei]))) ++ei;
      while (ej < b.size() && std::isdigit(static_cast<unsigned char>(b[ej]))) ++ej;
      const std::string na = a.substr(i, ei - i), nb = b.substr(j, ej - j);
      if (na.size() != nb.size()) return na.size() < nb.size();
      if (na != nb) return na < nb;
      i = ei;
      j = ej;
    } else {
      if (a[i] != b[j]) return a[i] < b[j];
      ++i;
      ++j;
    }
  }
  return a.size() - i < b.size() - j;
}

/// The newest /boot/vmlinuz-*, or "" when /boot holds none.
std::string hostKernel() {
  std::vector<std::string> kernels;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/boot", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("vmlinuz-", 0) == 0) kernels.push_back(entry.path().string());
  }
  if (kernels.empty()) return "";
  return *std::max_element(kernels.begin(), kernels.end(), versionLess);
}

/// Changes whenever the builder does, so an edited builder never reuses an old image.
std::string builderVersion() {
  std::uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (unsigned char c : readFile(builderScript())) h = (h ^ c) * 1099511628211ULL;
  static const char* kHex = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < 8; ++i) out += kHex[(h >> (60 - 4 * i)) & 0xf];
  return out;
}

}  // namespace

std::string missingGuestDiskPrerequisites() {
  const char* needed[] = {
      "/usr/lib/shim/shimx64.efi.signed",  "/usr/lib/shim/mmx64.efi.signed",
      "/usr/lib/shim/fbx64.efi.signed",    "/usr/lib/shim/BOOTX64.CSV",
      "/usr/lib/grub/x86_64-efi-signed/grubx64.efi.signed",
      "/usr/lib/grub/i386-pc/boot.img",    "/bin/busybox",
      "/usr/share/OVMF/OVMF_CODE_4M.fd",   "/usr/share/OVMF/OVMF_VARS_4M.fd",
      "/usr/bin/qemu-system-x86_64",       "/usr/bin/grub-mkimage",
      "/usr/bin/mcopy",                    "/usr/sbin/mkfs.vfat",
      "/usr/bin/cpio"};
  std::string missing;
  for (const char* path : needed) {
    if (::access(path, R_OK) != 0) missing += std::string(missing.empty() ? "" : ", ") + path;
  }
  if (hostKernel().empty()) missing += std::string(missing.empty() ? "" : ", ") + "/boot/vmlinuz-*";
  if (missing.empty()) return "";
  return "missing " + missing + " (run scripts/host-setup)";
}

std::string guestDiskImage(GuestDiskKind kind) {
  const std::string kernel = hostKernel();
  if (kernel.empty()) throw std::runtime_error("no kernel in /boot to boot the guest disks with");
  const std::string kernelVersion = fs::path(kernel).filename().string().substr(8);
  const std::string dir = std::string(kCacheRoot) + "/" + kernelVersion + "-" + builderVersion();
  const std::string kindName = kind == GuestDiskKind::kUefi ? "uefi" : "bios";
  const std::string image = dir + "/" + kindName + ".raw";
  std::error_code ec;
  if (fs::is_regular_file(image, ec)) return image;

  fs::create_directories(dir, ec);
  if (ec) throw std::runtime_error("cannot create " + dir + ": " + ec.message());
  // Built under a private name and renamed, so a reader never sees half an image.
  const std::string partial = image + ".partial-" + std::to_string(::getpid());
  CommandResult built = runCommand({"sh", builderScript(), kindName, kernel, partial});
  if (!built.ok()) {
    fs::remove(partial, ec);
    throw std::runtime_error("building the " + kindName + " guest disk failed (exit " +
                             std::to_string(built.exitCode) + "): " + built.stderrText +
                             built.stdoutText);
  }
  fs::rename(partial, image, ec);
  if (ec) throw std::runtime_error("cannot move " + partial + " to " + image + ": " + ec.message());
  return image;
}

}  // namespace orvane::testing
