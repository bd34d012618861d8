#pragma once

#include <string>

namespace orvane {

// Pure rules on the lower-cased guest OS identifier of a .vmx and on VM names.

/// "windows" or "linux".
std::string osFamily(const std::string& guestOs);
/// True for Windows releases older than Windows 8, which boot reliably only on IDE.
bool isLegacyWindows(const std::string& guestOs);
/// The osinfo short name virt-install knows the Windows release by.
std::string mapWindowsOsinfo(const std::string& guestOs);
/// True when `name` is non-empty and holds only ASCII letters, digits and _ . + -
bool isValidDomainName(const std::string& name);

}  // namespace orvane
