#pragma once

#include <cstddef>
#include <string>

#include "progress/progress_observer.h"

namespace orvane {

/// True when isatty(fd) returns 1.
bool isTerminal(int fd);

/// One of "|/-\\" chosen by `frame` modulo 4.
char spinnerCharacter(std::size_t frame);

/// One redrawn terminal line. Draws nothing unless `fd` is a terminal, so that
/// redirected output never receives carriage returns.
class TerminalProgress : public ProgressObserver {
 public:
  explicit TerminalProgress(int fd);
  void onFinish() override;
  void draw(const std::string& text);
  bool enabled() const { return enabled_; }

 private:
  int fd_;
  bool enabled_;
  std::size_t lastWidth_ = 0;
};

}  // namespace orvane
