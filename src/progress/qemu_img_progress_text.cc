#include "progress/qemu_img_progress_text.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "progress/terminal_progress.h"

namespace orvane {
namespace {

constexpr std::string_view kPercentEnd = "/100%)";
constexpr long kBarWidth = 24;

long clampLong(long value, long low, long high) {
  return value < low ? low : (value > high ? high : value);
}

}  // namespace

std::optional<double> lastQemuImgPercent(std::string_view text) {
  if (text.size() < kPercentEnd.size()) return std::nullopt;
  const std::size_t end = text.rfind(kPercentEnd);
  if (end == std::string_view::npos) return std::nullopt;
  const std::size_t open = text.rfind('(', end);
  if (open == std::string_view::npos) return std::nullopt;

  // strtod needs a terminated string; the copy is at most the capped buffer.
  const std::string number(text.substr(open + 1, end - open - 1));
  char* parsedEnd = nullptr;
  errno = 0;
  const double value = std::strtod(number.c_str(), &parsedEnd);
  if (parsedEnd == number.c_str() || errno == ERANGE) return std::nullopt;
  // Also turns away NaN, which fails both comparisons.
  if (!(value >= 0.0 && value <= 100.0)) return std::nullopt;
  return value;
}

std::string formatQemuImgLine(const std::string& label, double percent,
                              std::size_t frame) {
  std::string line = label;
  if (percent < 0) {
    line += ' ';
  } else {
    const long filled = clampLong(std::lround(percent / 100.0 * kBarWidth), 0, kBarWidth);
    line += " [";
    line.append(static_cast<std::size_t>(filled), '=');
    line.append(static_cast<std::size_t>(kBarWidth - filled), ' ');
    line += "] ";
    char number[8];
    std::snprintf(number, sizeof number, "%3d%%",
                  static_cast<int>(clampLong(std::lround(percent), 0, 100)));
    line += number;
    line += ' ';
  }
  line += spinnerCharacter(frame);
  line += ' ';
  return line;
}

}  // namespace orvane
