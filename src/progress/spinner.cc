#include "progress/spinner.h"

#include <utility>

namespace orvane {

Spinner::Spinner(std::string label, int fd)
    : TerminalProgress(fd), label_(std::move(label)) {}

void Spinner::onTick() {
  draw(label_ + " " + spinnerCharacter(frame_) + " ");
  ++frame_;
}

}  // namespace orvane
