#include "text/text.h"

#include <ctime>

namespace orvane {
namespace {

// What the C library's isspace calls blank in the C locale, without its locale.
constexpr std::string_view kBlanks = " \t\n\v\f\r";

}  // namespace

std::string_view trim(std::string_view s) {
  const std::size_t first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return trimEnd(s.substr(first));
}

std::string_view trimEnd(std::string_view s) {
  const std::size_t last = s.find_last_not_of(kBlanks);
  return last == std::string_view::npos ? std::string_view() : s.substr(0, last + 1);
}

std::string toLowerAscii(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool endsWithLower(const std::string& s, const std::string& suffix) {
  return suffix.size() <= s.size() &&
         toLowerAscii(std::string_view(s).substr(s.size() - suffix.size())) == suffix;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text.find(separator, start);
    if (end == std::string_view::npos) break;
    pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines = split(text, '\n');
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

std::vector<std::string> nonBlankLines(std::string_view text) {
  std::vector<std::string> lines;
  for (std::string_view line : split(text, '\n')) {
    line = trimEnd(line);
    if (!line.empty()) lines.emplace_back(line);
  }
  return lines;
}

bool isVmNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_' || c == '.' || c == '+' || c == '-';
}

std::string strftimeNow(const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char buffer[64];
  // The formats are the program's own constants, never outside input.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const std::size_t length = std::strftime(buffer, sizeof buffer, format, &local);
#pragma GCC diagnostic pop
  return std::string(buffer, length);
}

}  // namespace orvane
