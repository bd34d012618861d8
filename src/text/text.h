#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// The small text helpers every module shares. They live here once, not as private
// copies in each file, so that a fault in one is fixed in one place.

/// `s` without leading and trailing blanks (space, tab, CR, LF, vertical tab, form feed).
std::string_view trim(std::string_view s);
/// `s` without trailing blanks.
std::string_view trimEnd(std::string_view s);
/// `s` with ASCII A-Z lower-cased; every other byte is kept as it is.
std::string toLowerAscii(std::string_view s);
/// Case-insensitive suffix test; `suffix` must be given in lower case.
bool endsWithLower(const std::string& s, const std::string& suffix);
/// Every piece between separators, empty ones too: "a,,b," gives "a", "", "b", "";
/// "" gives one empty piece.
std::vector<std::string_view> split(std::string_view text, char separator);
/// The lines of `text`, empty ones kept so that each stays at its line number; a
/// final line feed ends the last line rather than starting an empty one.
std::vector<std::string_view> splitLines(std::string_view text);
/// The lines of `text` without their trailing blanks, blank lines dropped; leading
/// blanks are kept, so " web" stays distinct from "web".
std::vector<std::string> nonBlankLines(std::string_view text);
/// True for the characters a VM name may hold: ASCII letters, digits and _ . + -
bool isVmNameChar(char c);
/// The local time now, formatted with strftime.
std::string strftimeNow(const char* format);

}  // namespace orvane
