#include "progress/qemu_img_progress_text.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace orvane {
namespace {

TEST(LastQemuImgPercent, Table) {
  const struct {
    std::string text;
    std::optional<double> expected;
  } cases[] = {
      {"    (42.17/100%)\r", 42.17},
      {"(0.00/100%)", 0.0},
      {"(100.00/100%)", 100.0},
      {"(  7.5/100%)", 7.5},                   // leading blanks
      {"(12.5abc/100%)", 12.5},                // trailing text ignored
      {"(10.00/100%)\r(20.00/100%)\r", 20.0},  // newest wins
      {"(30/100%)\r(abc/100%)",
       std::nullopt},  // the newest decides, and it is not a number
      {"(abc/100%)", std::nullopt},
      {"(150/100%)", std::nullopt},
      {"(-1/100%)", std::nullopt},
      {"(100.01/100%)", std::nullopt},
      {"(1e999/100%)", std::nullopt},  // out of range
      {"(nan/100%)", std::nullopt},
      {"(/100%)", std::nullopt},
      {"42/100%)", std::nullopt},    // no opening parenthesis
      {"(42.0/100%", std::nullopt},  // not complete yet
      {"/100%)", std::nullopt},
      {"(5", std::nullopt},
      {"", std::nullopt},
      {"(1 (2/100%)", 2.0},  // the "(" nearest to the marker
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, lastQemuImgPercent(c.text)) << '"' << c.text << '"';
  }
}

TEST(FormatQemuImgLine, Table) {
  const std::string empty(24, ' ');
  const std::string full(24, '=');
  const struct {
    double percent;
    std::size_t frame;
    std::string expected;
  } cases[] = {
      {-1, 0, "  disk | "},
      {-1, 5, "  disk / "},
      {0, 2, "  disk [" + empty + "]   0% - "},
      {0.2, 3, "  disk [" + empty + "]   0% \\ "},
      {42.17, 0, "  disk [" + std::string(10, '=') + std::string(14, ' ') + "]  42% | "},
      {50, 0, "  disk [" + std::string(12, '=') + std::string(12, ' ') + "]  50% | "},
      {2.1, 0, "  disk [" + std::string(1, '=') + std::string(23, ' ') + "]   2% | "},
      {99.4, 0, "  disk [" + full + "]  99% | "},
      {99.6, 0, "  disk [" + full + "] 100% | "},
      {100, 4, "  disk [" + full + "] 100% | "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, formatQemuImgLine("  disk", c.percent, c.frame)) << c.percent;
  }
}

}  // namespace
}  // namespace orvane
