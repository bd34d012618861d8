#pragma once

#include <csignal>

#include "disk_converter/disk_converter.h"

namespace orvane {

/// Runs `qemu-img convert -p -f vmdk -O qcow2 <source> <target>`.
class QemuImgDiskConverter : public DiskConverter {
 public:
  /// A non-zero `*stopFlag` (a pending termination signal) stops a running
  /// conversion: hours of copying must not stand between a stop and the exit.
  explicit QemuImgDiskConverter(const volatile std::sig_atomic_t* stopFlag = nullptr)
      : stopFlag_(stopFlag) {}
  CommandResult convert(const std::string& source, const std::string& target,
                        ProgressObserver* progress) override;

 private:
  const volatile std::sig_atomic_t* stopFlag_;
};

}  // namespace orvane
