#pragma once

#include <string>

#include "boot_fixer/boot_fixer.h"

namespace orvane {

/// How the dry-run report states the boot fixer's prediction for the source disks.
struct BootPredictionReport {
  std::string line;   ///< the report line under the boot fix heading
  std::string issue;  ///< non-empty when a real run would refuse: a dry-run issue
};

/// Pure: the report line and, for a predicted refusal, the issue, from what
/// BootFixer::predictEfiFallback answered.
BootPredictionReport describeBootPrediction(const BootFixPrediction& prediction);

}  // namespace orvane
