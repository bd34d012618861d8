#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "disk_converter/disk_converter.h"
#include "progress/qemu_img_progress.h"

namespace orvane {

void Conversion::convertDisks() {
  log_.info("Step 3/" + std::to_string(totalSteps_) + ": Converting " +
            std::to_string(vmdkFiles_.size()) + " disk(s) to qcow2...");
  for (std::size_t i = 0; i < vmdkFiles_.size(); ++i) {
    log_.info("  " + targetDevs_[i] + ": " + vmdkFiles_[i]);
    log_.info("         -> " + targetQcows_[i]);
    QemuImgProgress progress("  " + targetDevs_[i], 1);
    CommandResult result = diskConverter_->convert(vmdkFiles_[i], targetQcows_[i], &progress);
    if (result.ok()) {
      // Recorded only once complete: a half-written image at a failed disk's path is
      // not this run's to claim.
      createdQcows_.push_back(targetQcows_[i]);
      continue;
    }
    std::string detail = result.stderrText.empty() ? result.stdoutText : result.stderrText;
    while (!detail.empty() && (detail.back() == '\n' || detail.back() == '\r')) {
      detail.pop_back();
    }
    log_.error("qemu-img conversion failed for " + vmdkFiles_[i] + ": " + detail);
    throw V2vError("qemu-img conversion failed", "disk_convert", true);
  }
  stepConvertOk_ = true;
  log_.info("All disks converted.");
}

}  // namespace orvane
