#include "vmx/vmx_reader.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
// GCC 12 with -fsanitize=address reports false maybe-uninitialized warnings from
// inside <regex>'s own templates; they are not about this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#include <string_view>

#include "conversion/errors.h"
#include "text/text.h"

namespace orvane {
namespace {

/// One `key = "value"` line: the key trimmed and lower-cased, the value the text
/// between the first two quotes after the `=` (empty when it is not quoted).
struct Entry {
  std::string lowerKey;
  std::string value;
};

std::string valueOr(std::string value, const char* fallback) {
  return value.empty() ? std::string(fallback) : value;
}

bool isTrue(const std::string& value) { return toLowerAscii(value) == "true"; }

/// The value of the first entry with exactly this key, "" when there is none. The
/// first occurrence wins even when it is empty and a later one is not.
std::string firstValue(const std::vector<Entry>& entries, const std::string& lowerKey) {
  for (const Entry& entry : entries) {
    if (entry.lowerKey == lowerKey) return entry.value;
  }
  return "";
}

/// Appends the entry of one line, if the line has one.
void parseLine(std::string_view line, std::vector<Entry>& entries) {
  const std::size_t eq = line.find('=');
  if (eq == std::string_view::npos) return;
  const std::string_view key = trim(line.substr(0, eq));
  if (key.empty()) return;
  // No escape processing and no trimming: the value ends at the second quote,
  // and whatever follows it (a trailing remark, a CR) is ignored.
  std::string_view value;
  const std::size_t open = line.find('"', eq + 1);
  if (open != std::string_view::npos) {
    const std::size_t close = line.find('"', open + 1);
    if (close != std::string_view::npos) value = line.substr(open + 1, close - open - 1);
  }
  entries.push_back({toLowerAscii(key), std::string(value)});
}

std::vector<Entry> parseEntries(std::string_view text) {
  std::vector<Entry> entries;
  for (std::string_view line : splitLines(text)) parseLine(line, entries);
  return entries;
}

/// Whether `key` fully matches `pattern`, for the key patterns below only.
/// libstdc++'s matcher recurses once per character a repetition consumes, so a
/// corrupt file with a number thousands of digits long would overflow the stack.
/// The patterns' one repetition is [0-9]+ and they hold no other digit, so
/// matching the key with each run of digits cut to one digit gives the same answer.
bool keyMatches(std::string_view key, const std::regex& pattern) {
  std::string shortened;
  shortened.reserve(key.size());
  for (std::size_t i = 0; i < key.size(); ++i) {
    const bool digit = key[i] >= '0' && key[i] <= '9';
    const bool afterDigit = i > 0 && key[i - 1] >= '0' && key[i - 1] <= '9';
    if (!(digit && afterDigit)) shortened.push_back(key[i]);
  }
  return std::regex_match(shortened, pattern);
}

// The prefix and suffix tests in front of the regular expressions below only
// spare the regex engine the keys that cannot match; the expression decides.

bool isDiskFileKey(const std::string& key) {
  static const std::regex kDiskKey("^(scsi|sata|nvme|ide)[0-9]+:[0-9]+\\.filename$",
                                   std::regex::ECMAScript);
  const bool plausibleBus = key.starts_with("scsi") || key.starts_with("sata") ||
                            key.starts_with("nvme") || key.starts_with("ide");
  return plausibleBus && key.ends_with(".filename") && keyMatches(key, kDiskKey);
}

bool isPassthroughPresentKey(const std::string& key) {
  static const std::regex kPassthroughKey("^pcipassthru[0-9]+\\.present$",
                                          std::regex::ECMAScript);
  return key.starts_with("pcipassthru") && key.ends_with(".present") &&
         keyMatches(key, kPassthroughKey);
}

bool isSerialPresentKey(const std::string& key) {
  static const std::regex kSerialKey("^serial[0-9]+\\.present$", std::regex::ECMAScript);
  return key.starts_with("serial") && key.ends_with(".present") &&
         keyMatches(key, kSerialKey);
}

/// Compares two runs of decimal digits by value, whatever their length, so an
/// absurd unit number cannot overflow a conversion.
int compareDecimal(std::string_view a, std::string_view b) {
  const auto stripZeros = [](std::string_view s) {
    const std::size_t nonZero = s.find_first_not_of('0');
    return nonZero == std::string_view::npos ? std::string_view() : s.substr(nonZero);
  };
  a = stripZeros(a);
  b = stripZeros(b);
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return a.compare(b);
}

/// Bus order of device prefixes such as "scsi0:1": controllers byte-wise (so
/// "scsi10" comes before "scsi2"), then units by number ("scsi0:2" before "scsi0:10").
bool diskBefore(std::string_view a, std::string_view b) {
  const std::size_t colonA = a.find(':');
  const std::size_t colonB = b.find(':');
  const std::string_view controllerA = a.substr(0, colonA);
  const std::string_view controllerB = b.substr(0, colonB);
  if (controllerA != controllerB) return controllerA < controllerB;
  return compareDecimal(a.substr(colonA + 1), b.substr(colonB + 1)) < 0;
}

/// The disk's file name, or "" when the device is no usable hard disk: CD/DVD and
/// floppy devices, images that are not .vmdk, and devices not marked present.
std::string hardDiskFileName(const std::vector<Entry>& entries,
                             const std::string& prefix) {
  const std::string fileName = firstValue(entries, prefix + ".filename");
  if (fileName.empty() || !endsWithLower(fileName, ".vmdk")) return "";
  if (!isTrue(firstValue(entries, prefix + ".present"))) return "";
  const std::string deviceType = toLowerAscii(firstValue(entries, prefix + ".devicetype"));
  for (const char* removable : {"cdrom", "atapi", "floppy"}) {
    if (deviceType.find(removable) != std::string::npos) return "";
  }
  return fileName;
}

struct Disk {
  std::string device;  ///< "scsi0:0"
  std::string path;
};

/// "scsi0:007" and "scsi0:7" name the same device: units are compared by value.
std::string deviceKey(std::string_view device) {
  const std::size_t colon = device.find(':');
  if (colon == std::string_view::npos) return std::string(device);
  std::string_view unit = device.substr(colon + 1);
  while (unit.size() > 1 && unit.front() == '0') unit.remove_prefix(1);
  return std::string(device.substr(0, colon + 1)) + std::string(unit);
}

/// The kept hard disks in bus order.
std::vector<Disk> busOrderDisks(const std::vector<Entry>& entries,
                                const std::string& vmFolder) {
  constexpr std::size_t kFileNameSuffix = sizeof(".filename") - 1;
  std::vector<std::string> prefixes;
  for (const Entry& entry : entries) {
    if (isDiskFileKey(entry.lowerKey)) {
      prefixes.push_back(
          entry.lowerKey.substr(0, entry.lowerKey.size() - kFileNameSuffix));
    }
  }
  std::sort(prefixes.begin(), prefixes.end(),
            [](const std::string& a, const std::string& b) { return diskBefore(a, b); });
  prefixes.erase(std::unique(prefixes.begin(), prefixes.end()), prefixes.end());

  std::vector<Disk> disks;
  for (const std::string& prefix : prefixes) {
    std::string fileName = hardDiskFileName(entries, prefix);
    if (fileName.empty()) continue;
    // Joined as text: the folder is the user's own spelling, kept for messages.
    disks.push_back(
        {prefix, fileName.front() == '/' ? fileName : vmFolder + "/" + fileName});
  }
  return disks;
}

/// Moves the disks that `hddOrder` ("scsi0:0" or "sata0:1,scsi0:0") names to the
/// front, in its order: the user chose the boot disk in VMware's BIOS setup, and a
/// data disk that merely sorts first by bus would otherwise become the boot disk.
/// Returns whether it named any of the disks.
bool applyHddOrder(std::string_view hddOrder, std::vector<Disk>& disks) {
  std::map<std::string, std::size_t, std::less<>> byDevice;
  for (std::size_t i = 0; i < disks.size(); ++i)
    byDevice.emplace(deviceKey(disks[i].device), i);
  std::vector<bool> moved(disks.size(), false);
  std::vector<Disk> ordered;
  for (std::string_view device : split(hddOrder, ',')) {
    const auto found = byDevice.find(deviceKey(toLowerAscii(trim(device))));
    if (found == byDevice.end() || moved[found->second]) continue;
    moved[found->second] = true;
    ordered.push_back(std::move(disks[found->second]));
  }
  if (ordered.empty()) return false;
  for (std::size_t i = 0; i < disks.size(); ++i) {
    if (!moved[i]) ordered.push_back(std::move(disks[i]));
  }
  disks = std::move(ordered);
  return true;
}

/// What one ethernetN says about its MAC; the first occurrence of each key wins.
struct NicKeys {
  std::optional<std::string> present, addressType, address, generatedAddress;
  bool listed = false;
};

/// "ethernet12.address" -> index "12", field "address"; false for other keys.
bool splitNicKey(std::string_view key, std::string_view& index, std::string_view& field) {
  constexpr std::string_view kPrefix = "ethernet";
  if (!key.starts_with(kPrefix)) return false;
  const std::size_t dot = key.find('.', kPrefix.size());
  if (dot == std::string_view::npos || dot == kPrefix.size()) return false;
  index = key.substr(kPrefix.size(), dot - kPrefix.size());
  for (char c : index) {
    if (c < '0' || c > '9') return false;
  }
  field = key.substr(dot + 1);
  return true;
}

/// One MAC per NIC in the order the NICs' address keys first appear. A NIC that
/// is switched off is left out even when it still carries a generated address;
/// a static address is the one the guest's network (DHCP reservations, licences)
/// knows it by.
std::vector<std::string> nicMacs(const std::vector<Entry>& entries) {
  std::vector<std::string> order;
  std::map<std::string, NicKeys, std::less<>> nics;
  for (const Entry& entry : entries) {
    std::string_view index;
    std::string_view field;
    if (!splitNicKey(entry.lowerKey, index, field)) continue;
    const bool addressKey = field == "address" || field == "generatedaddress";
    if (!addressKey && field != "present" && field != "addresstype") continue;
    auto found = nics.find(index);
    if (found == nics.end()) found = nics.emplace(std::string(index), NicKeys()).first;
    NicKeys& nic = found->second;
    std::optional<std::string>& slot = field == "present"       ? nic.present
                                       : field == "addresstype" ? nic.addressType
                                       : field == "address"     ? nic.address
                                                                : nic.generatedAddress;
    if (!slot.has_value()) slot = entry.value;
    if (addressKey && !nic.listed) {
      nic.listed = true;
      order.emplace_back(index);
    }
  }
  std::vector<std::string> macs;
  for (const std::string& index : order) {
    const NicKeys& nic = nics.find(index)->second;
    if (toLowerAscii(nic.present.value_or("")) == "false") continue;
    const std::string address = nic.address.value_or("");
    const std::string generated = nic.generatedAddress.value_or("");
    const bool isStatic = toLowerAscii(nic.addressType.value_or("")) == "static";
    macs.push_back(!address.empty() && (isStatic || generated.empty()) ? address
                                                                       : generated);
  }
  return macs;
}

std::string baseName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

VmxData parseVmxText(const std::string& text, const std::string& vmFolder) {
  const std::vector<Entry> entries = parseEntries(text);
  VmxData data;
  data.displayName = firstValue(entries, "displayname");
  data.numVcpus = valueOr(firstValue(entries, "numvcpus"), "1");
  data.memSize = firstValue(entries, "memsize");
  data.guestOs = toLowerAscii(firstValue(entries, "guestos"));
  data.firmware = valueOr(toLowerAscii(firstValue(entries, "firmware")), "bios");

  data.macAddresses = nicMacs(entries);
  for (const Entry& entry : entries) {
    // Every occurrence counts here, not only the first: one device marked present
    // anywhere is enough to need the user's attention.
    if (isPassthroughPresentKey(entry.lowerKey) && isTrue(entry.value)) {
      data.hasPassthrough = true;
    }
    if (isSerialPresentKey(entry.lowerKey) && isTrue(entry.value)) data.hasSerial = true;
  }
  data.hasVtpm = isTrue(firstValue(entries, "vtpm.present"));

  // Either key alone means VMware sealed the VM; what is left in clear is no
  // description of it.
  data.encrypted = !firstValue(entries, "encryption.keysafe").empty() ||
                   !firstValue(entries, "encryption.data").empty();

  std::vector<Disk> disks = busOrderDisks(entries, vmFolder);
  data.hddOrderApplied = applyHddOrder(firstValue(entries, "bios.hddorder"), disks);
  for (Disk& disk : disks) {
    data.diskDevices.push_back(std::move(disk.device));
    data.vmdkFiles.push_back(std::move(disk.path));
  }
  for (const std::string& path : data.vmdkFiles) {
    if (vmdkHasParent(path)) data.snapDisks.push_back(baseName(path));
  }
  return data;
}

VmxData parseVmx(const std::string& vmxPath, const std::string& vmFolder) {
  std::ifstream in(vmxPath, std::ios::binary);
  if (!in) throw V2vError("Could not read the VMX file: " + vmxPath);
  std::string text;
  // Only a hint: reserving spares a large file the copies of a growing string.
  std::error_code sizeError;
  const std::uintmax_t size = std::filesystem::file_size(vmxPath, sizeError);
  if (!sizeError) text.reserve(size);
  // istream::read turns a failing read (a directory opens but cannot be read)
  // into badbit instead of letting the buffer's exception escape.
  char buffer[64 * 1024];
  while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
    text.append(buffer, static_cast<std::size_t>(in.gcount()));
  }
  if (in.bad()) throw V2vError("Could not read the VMX file: " + vmxPath);
  return parseVmxText(text, vmFolder);
}

}  // namespace orvane
