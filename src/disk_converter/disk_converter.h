#pragma once

#include <string>

#include "process/command_runner.h"

namespace orvane {

class ProgressObserver;

/// Converts one VMDK into a qcow2 image. Abstract so it can be replaced in tests;
/// the real implementation is QemuImgDiskConverter. Never throws for a tool failure.
class DiskConverter {
 public:
  virtual ~DiskConverter() = default;
  virtual CommandResult convert(const std::string& source, const std::string& target,
                                ProgressObserver* progress) = 0;
};

}  // namespace orvane
