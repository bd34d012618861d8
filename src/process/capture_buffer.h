#pragma once

#include <string>
#include <string_view>

namespace orvane {

/// Appends `bytes` to `text`, as text.append would. Once the text outgrows a few
/// MiB, each new allocation is advised for transparent huge pages before anything
/// is copied into it: a captured multi-GiB output then costs one page fault per
/// 2 MiB instead of one per 4 KiB, which dominates capture speed on virtual hosts.
void appendCaptured(std::string& text, std::string_view bytes);

}  // namespace orvane
