#include "conversion/target_naming.h"

namespace orvane {

std::vector<DiskTarget> planTargets(const std::string& outputDir, const std::string& vmName,
                                    const std::string& devPrefix, std::size_t diskCount) {
  static const std::string kLetters = "abcdefghijklmnopqrstuvwxyz";
  std::vector<DiskTarget> targets;
  if (diskCount == 1) {
    targets.push_back({outputDir + "/" + vmName + ".qcow2", devPrefix + "a"});
    return targets;
  }
  for (std::size_t i = 0; i < diskCount; ++i) {
    std::string device =
        devPrefix + (i < kLetters.size() ? std::string(1, kLetters[i]) : std::to_string(i));
    targets.push_back({outputDir + "/" + vmName + "-" + device + ".qcow2", device});
  }
  return targets;
}

}  // namespace orvane
