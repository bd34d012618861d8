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
/// True when `name` is non-empty, holds only ASCII letters, digits and _ . + -
/// and virsh would not take it for something else (see virshMisreadsName).
bool isValidDomainName(const std::string& name);
/// True when virsh or virt-install would not read `name` as a name: it begins with
/// "-" (an option), is a number (virsh looks it up as a domain ID first) or has
/// the 36 characters of a UUID (looked up as a UUID).
bool virshMisreadsName(const std::string& name);

}  // namespace orvane
