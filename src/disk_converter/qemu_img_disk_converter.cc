#include "disk_converter/qemu_img_disk_converter.h"

namespace orvane {

CommandResult QemuImgDiskConverter::convert(const std::string& source,
                                            const std::string& target,
                                            ProgressObserver* progress) {
  // Both formats are stated so that qemu-img never guesses one from the contents.
  CommandOptions options;
  options.progress = progress;
  options.tickIntervalMs = 100;
  options.stopFlag = stopFlag_;
  return runCommand(
      {"qemu-img", "convert", "-p", "-f", "vmdk", "-O", "qcow2", source, target},
      options);
}

}  // namespace orvane
