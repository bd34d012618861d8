#include "progress/qemu_img_progress.h"

#include <utility>

#include "progress/qemu_img_progress_text.h"

namespace orvane {
namespace {

// Enough to hold several complete "(NN.NN/100%)" updates and a partial one, so a
// value split across reads is still found, while each chunk costs a bounded scan.
constexpr std::size_t kBufferCap = 256;

}  // namespace

QemuImgProgress::QemuImgProgress(std::string label, int fd)
    : TerminalProgress(fd), label_(std::move(label)) {}

void QemuImgProgress::onOutput(std::string_view chunk) {
  buffer_.append(chunk);
  if (const std::optional<double> percent = lastQemuImgPercent(buffer_))
    percent_ = *percent;
  if (buffer_.size() > kBufferCap) buffer_.erase(0, buffer_.size() - kBufferCap);
  render();
}

void QemuImgProgress::onTick() {
  ++frame_;
  render();
}

void QemuImgProgress::render() { draw(formatQemuImgLine(label_, percent_, frame_)); }

}  // namespace orvane
