#pragma once

#include <string>
#include <vector>

namespace orvane {

struct DiskTarget {
  std::string image;   ///< where the qcow2 goes
  std::string device;  ///< the guest device name, e.g. "sda"
};

/// One image per disk: "<dir>/<vm>.qcow2" for a single disk, otherwise
/// "<dir>/<vm>-<device>.qcow2" for every disk. Devices are the prefix and a letter,
/// and the prefix and the index itself from the 27th disk on (sd26, not sdaa).
std::vector<DiskTarget> planTargets(const std::string& outputDir, const std::string& vmName,
                                    const std::string& devPrefix, std::size_t diskCount);

}  // namespace orvane
