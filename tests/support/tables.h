#pragma once
// Test cases kept as data beside the tests: rows (.tsv, one case a line, fields split
// at tabs) or blocks (.txt: "case: NAME" opens a case, "key: value" lines follow, a
// line beginning "| " continues the value above on a new line). Blank and "#" lines
// are skipped. In a value "\n" "\r" "\t" "\0" "\\" "\xNN" stand for the byte; any
// other backslash stays as written. A row's field "<count>*<text>" stands for `text`
// repeated `count` times, for inputs too long to write out.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <utility>

#include "conversion/errors.h"
#include "progress/progress_observer.h"
#include "support/host.h"

namespace orvane::testing {

inline std::string unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const std::size_t kind =
        s[i] == '\\' ? std::string_view("nrt0\\x").find(s[i + 1]) : 9;
    out += kind > 5   ? s[i]
           : kind < 5 ? "\n\r\t\0\\"[kind]
                      : std::stoi(s.substr(i + 2, 2), 0, 16);
    i += kind > 5 ? 0 : kind < 5 ? 1 : 3;
  }
  return out;
}

/// The lines of `path` that are neither blank nor comments; none fails the test.
inline std::vector<std::string> dataLines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  }
  if (lines.empty()) ADD_FAILURE() << "no cases in " << path;
  return lines;
}

inline std::vector<std::vector<std::string>> readRows(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  for (const std::string& line : dataLines(path)) {
    rows.emplace_back();
    for (std::size_t start = 0, tab = 0; tab != std::string::npos; start = tab + 1) {
      tab = line.find('\t', start);
      std::string field = unescape(line.substr(start, tab - start));
      const std::size_t star = field.find('*');
      if (star != 0 && star != std::string::npos && field.find_first_not_of("0123456789") == star) {
        const std::string unit = field.substr(star + 1);
        for (int n = std::stoi(std::exchange(field, "")); n > 0; --n) field += unit;
      }
      rows.back().push_back(field);
    }
  }
  return rows;
}

struct Case {
  std::string name;
  std::vector<std::pair<std::string, std::string>> fields;  ///< in file order

  std::vector<std::string> all(std::string_view key) const {
    std::vector<std::string> values;
    for (const auto& [k, v] : fields)
      if (k == key) values.push_back(v);
    return values;
  }
  std::string operator[](std::string_view key) const {
    return all(key).empty() ? "" : all(key)[0];
  }
  /// The fields of `keys` as "key: value" lines in file order: what a case expects.
  std::string text(std::initializer_list<std::string_view> keys) const {
    std::string out;
    for (const auto& [k, v] : fields) {
      if (std::find(keys.begin(), keys.end(), k) != keys.end())
        out += k + ": " + v + "\n";
    }
    return out;
  }
};

inline std::vector<Case> readCases(const std::string& path) {
  std::vector<Case> cases;
  for (const std::string& line : dataLines(path)) {
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string key = line.substr(0, colon);
    const std::string value = unescape(line.substr(std::min(colon + 2, line.size())));
    if (key == "case") cases.push_back({value, {}});
    if (key == "case" || cases.empty()) continue;
    if (line.rfind("| ", 0) == 0) {
      cases.back().fields.back().second += "\n" + unescape(line.substr(2));
    } else {
      cases.back().fields.emplace_back(key, value);
    }
  }
  return cases;
}

inline std::string joined(const std::vector<std::string>& items,
                          const char* between = " | ") {
  std::string out;
  for (const std::string& item : items) out += (&item == &items[0] ? "" : between) + item;
  return out;
}

inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

/// `text` with every stretch shaped like `shape` ('d' for any digit) replaced by `mask`.
inline std::string maskShape(std::string text, const std::string& shape, const std::string& mask) {
  const auto fits = [](char s, char c) { return s == 'd' ? c >= '0' && c <= '9' : c == s; };
  for (std::size_t i = 0; i + shape.size() <= text.size(); ++i) {
    if (std::equal(shape.begin(), shape.end(), text.begin() + i, fits)) text.replace(i, shape.size(), mask);
  }
  return text;
}

/// Keeps what a command reports and when it ticked; raises `stop` at tick `stopAt`, as
/// a signal would.
struct RecordingProgress : ProgressObserver {
  void onOutput(std::string_view chunk) override { output.append(chunk); }
  void onTick() override {
    ticks.push_back(std::chrono::steady_clock::now());
    stop = ticks.size() == stopAt ? SIGINT : stop;
  }
  void onFinish() override { ++finishes; }
  std::string output;
  std::vector<std::chrono::steady_clock::time_point> ticks;
  std::size_t stopAt = 0;
  int finishes = 0;
  volatile std::sig_atomic_t stop = 0;
};

}  // namespace orvane::testing
