#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

/// The newest "(NN.NN/100%)" value in `text`: the number between the last "/100%)"
/// and the last "(" before it, read like strtod (leading blanks allowed, trailing
/// text ignored). Empty when there is none, it does not parse, or it is outside 0..100.
std::optional<double> lastQemuImgPercent(std::string_view text);

/// `label`, then " " when `percent` < 0, else " [" + 24-column bar + "] " + "%3d%%" +
/// " "; then the spinner character for `frame` and a blank.
std::string formatQemuImgLine(const std::string& label, double percent,
                              std::size_t frame);

}  // namespace orvane
