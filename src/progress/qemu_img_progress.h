#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "progress/terminal_progress.h"

namespace orvane {

/// Reads the "(NN.NN/100%)" percentages that `qemu-img convert -p` prints and draws
/// a 24-column bar. Parses even when not drawing, so lastPercent() stays meaningful.
class QemuImgProgress : public TerminalProgress {
 public:
  QemuImgProgress(std::string label, int fd);
  void onOutput(std::string_view chunk) override;
  void onTick() override;
  void render();
  /// The last percentage read, 0..100; -1 until one has been read.
  double lastPercent() const { return percent_; }

 private:
  std::string label_;
  std::string buffer_;
  double percent_ = -1;
  std::size_t frame_ = 0;
};

}  // namespace orvane
