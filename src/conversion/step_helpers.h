#pragma once

#include <string>
#include <vector>

#include "text/text.h"

namespace orvane {

class Logger;

// Small helpers that several conversion steps share. They live apart from the
// Conversion class so that they can be tested on their own.

/// True when an executable `name` is found in one of PATH's non-empty elements.
bool commandExists(const std::string& name);
/// `s` without one trailing "/" when it has at least two characters; "/" stays "/".
std::string stripTrailingSlash(std::string s);
std::string joinSpace(const std::vector<std::string>& words);
/// Logs `text` at error level, one line per line; nothing for an empty text and no
/// empty line after a final newline.
void errorLines(Logger& log, const std::string& text);
/// Flushes the file at `path` and then its directory to stable storage (fsync of
/// both), so that a power cut cannot lose either the data or the name. Returns ""
/// or what failed, with the system's reason.
std::string flushToDisk(const std::string& path);
/// A tool's output without qemu-img's progress fields ("(12.00/100%)") and the
/// carriage returns and blanks around them, and without trailing line ends: what is
/// left is the tool's own message.
std::string withoutProgress(const std::string& text);
/// The blocker for a target path that exists already, whoever made it.
std::string existingTargetMessage(const std::string& path);

}  // namespace orvane
