#include "support/console_lines.h"

#include <cctype>
#include <sstream>

#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace

std::string lastLineOf(const std::string& path) {
  const std::vector<std::string> lines = splitLines(readFile(path));
  return lines.empty() ? "" : lines.back();
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

std::string maskShape(std::string text, const std::string& shape, const std::string& mask) {
  for (std::size_t i = 0; i + shape.size() <= text.size(); ++i) {
    std::size_t k = 0;
    for (; k < shape.size() && (shape[k] == 'd' ? std::isdigit(static_cast<unsigned char>(text[i + k]))
                                                : text[i + k] == shape[k]); ++k) {
    }
    if (k == shape.size()) text.replace(i, shape.size(), mask);
  }
  return text;
}

std::vector<std::vector<std::string>> readTable(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  for (std::string& line : splitLines(readFile(path))) {
    if (line.starts_with('#')) continue;
    replaceAll(line, "\\n", "\n");
    replaceAll(line, "\\r", "\r");
    std::istringstream in(line);
    rows.emplace_back();
    for (std::string field; std::getline(in, field, '\t'); rows.back().push_back(field)) {
      const std::size_t star = field.find('*');
      if (star == 0 || star == std::string::npos || field.find_first_not_of("0123456789") != star) continue;
      std::string repeated, unit = field.substr(star + 1);
      for (int n = std::stoi(field); n > 0; --n) repeated += unit;
      field = repeated;
    }
  }
  return rows;
}

}  // namespace orvane::testing
