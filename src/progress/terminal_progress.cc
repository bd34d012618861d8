#include "progress/terminal_progress.h"

#include <unistd.h>

namespace orvane {

bool isTerminal(int fd) { return ::isatty(fd) == 1; }

char spinnerCharacter(std::size_t frame) {
  static constexpr char kFrames[] = {'|', '/', '-', '\\'};
  return kFrames[frame % 4];
}

TerminalProgress::TerminalProgress(int fd) : fd_(fd), enabled_(isTerminal(fd)) {}

void TerminalProgress::draw(const std::string& text) {
  if (!enabled_) return;
  std::string line = "\r" + text;
  if (lastWidth_ > text.size()) line.append(lastWidth_ - text.size(), ' ');
  lastWidth_ = text.size();
  // One write per frame keeps the line from flickering half-drawn; a lost frame is
  // repaired by the next one, so the result is not checked.
  [[maybe_unused]] const ssize_t ignored = ::write(fd_, line.data(), line.size());
}

void TerminalProgress::onFinish() {
  if (!enabled_ || lastWidth_ == 0) return;
  // Leave an empty line with the cursor at its start, so that the next log line
  // overwrites it instead of being appended to the bar.
  const std::string clear = "\r" + std::string(lastWidth_, ' ') + "\r";
  [[maybe_unused]] const ssize_t ignored = ::write(fd_, clear.data(), clear.size());
  lastWidth_ = 0;
}

}  // namespace orvane
