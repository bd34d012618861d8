#pragma once

#include <cstddef>
#include <string>

#include "progress/terminal_progress.h"

namespace orvane {

/// "label c " with a turning character, advanced on every tick.
class Spinner : public TerminalProgress {
 public:
  Spinner(std::string label, int fd);
  void onTick() override;

 private:
  std::string label_;
  std::size_t frame_ = 0;
};

}  // namespace orvane
