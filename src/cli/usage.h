#pragma once

#include <string>

namespace orvane {

inline constexpr const char* kToolName = "orvane-v2v";
inline constexpr const char* kVersion = "0.2.2";

/// The whole usage text, every line ended by a newline.
std::string usageText();

}  // namespace orvane
