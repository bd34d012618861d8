#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "disk_converter/disk_converter.h"
#include "libvirt_backend/libvirt_backend.h"
#include "progress/qemu_img_progress.h"

namespace orvane {

void Conversion::claimTargets() {
  // The preflight checks ran before the prompt, which may have waited for hours; a
  // path or a name taken since then by anyone (another run, say) must stop this
  // run before it writes a byte. O_EXCL makes the claim atomic: of two runs, one
  // gets the path and the other EEXIST. The claimed file is this run's own from
  // here on, so a failure removes it with the rest.
  for (const std::string& path : targetQcows_) {
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd == -1) {
      const int error = errno;
      if (error == EEXIST) noteBlocker(existingTargetMessage(path), kExitFailure);
      log_.error("Cannot create the target image " + path + ": " + std::strerror(error));
      throw V2vError("cannot create target image", "disk_convert", true);
    }
    ::close(fd);
    claimedQcows_.push_back(path);
  }
  if (libvirt_->domainExists(vmName_)) {
    noteBlocker("A VM named '" + vmName_ + "' already exists in Orvane.", kExitFailure);
  }
}

void Conversion::convertDisks() {
  log_.info("Step 3/" + std::to_string(totalSteps_) + ": Converting " +
            std::to_string(vmdkFiles_.size()) + " disk(s) to qcow2...");
  for (std::size_t i = 0; i < vmdkFiles_.size(); ++i) {
    checkSignal();
    log_.info("  " + targetDevs_[i] + ": " + vmdkFiles_[i]);
    log_.info("         -> " + targetQcows_[i]);
    QemuImgProgress progress("  " + targetDevs_[i], 1);
    CommandResult result = diskConverter_->convert(vmdkFiles_[i], targetQcows_[i], &progress);
    // The converter was stopped by, or ended beside, a termination signal: that is
    // an interruption, not a failure of the tool. The driver removes the target.
    if (!result.ok()) checkSignal();
    if (result.ok()) {
      // qemu-img closes the image without flushing it: it counts as converted only
      // once its data and its directory entry are on stable storage.
      const std::string failure = flushToDisk(targetQcows_[i]);
      if (!failure.empty()) {
        log_.error("Could not make " + targetQcows_[i] + " durable: " + failure);
        throw V2vError("image flush failed", "disk_convert", true);
      }
      createdQcows_.push_back(targetQcows_[i]);
      std::erase(claimedQcows_, targetQcows_[i]);
      continue;
    }
    std::string detail = withoutProgress(result.stderrText);
    if (detail.empty()) detail = withoutProgress(result.stdoutText);
    log_.error("qemu-img conversion failed for " + vmdkFiles_[i] + ": " + detail);
    throw V2vError("qemu-img conversion failed", "disk_convert", true);
  }
  stepConvertOk_ = true;
  log_.info("All disks converted.");
}

}  // namespace orvane
