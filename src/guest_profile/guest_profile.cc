#include "guest_profile/guest_profile.h"

#include <algorithm>
#include <string_view>

#include "text/text.h"

namespace orvane {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool contains(std::string_view s, std::string_view part) {
  return s.find(part) != std::string_view::npos;
}

struct OsinfoRow {
  std::string_view marker;
  std::string_view osinfo;
};

}  // namespace

std::string osFamily(const std::string& guestOs) {
  return guestOs.starts_with("win") ? "windows" : "linux";
}

bool isLegacyWindows(const std::string& guestOs) {
  // Deliberately not the osinfo table below: an identifier with "2008" but
  // neither "longhorn" nor "windows7" gets an old osinfo name without being
  // treated as legacy.
  static constexpr std::string_view kLegacyMarkers[] = {
      "win2000",    "winxp", "windowsxp", "winnet",
      "winntguest", "vista", "longhorn",  "windows7"};
  for (std::string_view marker : kLegacyMarkers) {
    if (contains(guestOs, marker)) return true;
  }
  return false;
}

std::string mapWindowsOsinfo(const std::string& guestOs) {
  // The first row that matches decides, so order is the tie-break: newer server
  // names come first because the identifier of a newer release may still hold an
  // older marker ("windows2019srvnext-64" is Server 2022). Server 2025 has no
  // osinfo name of its own yet, and Server 2008 is installed as 2008 R2.
  // clang-format off
  static constexpr OsinfoRow kRows[] = {
      {"windows11", "win11"},
      {"2022", "win2k22"},
      {"2025", "win2k22"},
      {"srvnext", "win2k22"},
      {"2019", "win2k19"},
      {"windows9srv", "win2k16"},
      {"2016", "win2k16"},
      {"2012", "win2k12r2"},
      {"windows8srv", "win2k12r2"},
      {"2008", "win2k8r2"},
      {"longhorn", "win2k8r2"},
      {"windows7srv", "win2k8r2"},
      {"windows10", "win10"},
      {"windows9-", "win10"},
      {"windows9_", "win10"},
      {"windows8", "win8"},
      {"windows7", "win7"},
      {"vista", "winvista"},
      {"winnet", "win2k3"},
      {"win2000", "win2k"},
      {"winntguest", "winnt4"},
      {"xp", "winxp"},
  };
  // clang-format on
  for (const OsinfoRow& row : kRows) {
    if (contains(guestOs, row.marker)) return std::string(row.osinfo);
  }
  return "win10";
}

bool virshMisreadsName(const std::string& name) {
  if (name.starts_with("-")) return true;
  // virsh parses the ID with strtol, which takes a leading "+" too.
  const std::string_view digits =
      std::string_view(name).substr(name.starts_with("+") ? 1 : 0);
  if (!digits.empty() && std::all_of(digits.begin(), digits.end(), isDigit)) return true;
  // virsh tries any 36-character name as a UUID, and libvirt's parser skips a
  // "-" between any two pairs of hex digits, not only at 8-4-4-4-12.
  if (name.size() != 36) return false;
  const auto hexDigits = std::count_if(name.begin(), name.end(), [](char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  });
  return hexDigits == 32 && std::count(name.begin(), name.end(), '-') == 4;
}

bool isValidDomainName(const std::string& name) {
  if (name.empty() || virshMisreadsName(name)) return false;
  return std::all_of(name.begin(), name.end(), isVmNameChar);
}

}  // namespace orvane
