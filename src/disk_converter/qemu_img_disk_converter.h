#pragma once

#include "disk_converter/disk_converter.h"

namespace orvane {

/// Runs `qemu-img convert -p -f vmdk -O qcow2 <source> <target>`.
class QemuImgDiskConverter : public DiskConverter {
 public:
  CommandResult convert(const std::string& source, const std::string& target,
                        ProgressObserver* progress) override;
};

}  // namespace orvane
