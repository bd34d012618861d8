// Each text helper on its edge cases, as data/helpers.tsv lists them.
#include "text/text.h"

#include "support/tables.h"

namespace orvane::testing {
namespace {

template <typename Pieces>
std::string bracketed(const Pieces& pieces) {
  std::string out;
  for (const auto& piece : pieces) out += "[" + std::string(piece) + "]";
  return out;
}

std::string apply(const std::string& helper, const std::string& s) {
  if (helper == "trim") return std::string(trim(s));
  if (helper == "lower") return toLowerAscii(s);
  if (helper == "split") return bracketed(split(s, ','));
  if (helper == "lines") return bracketed(splitLines(s));
  if (helper == "nonblank") return bracketed(nonBlankLines(s));
  if (helper == "vmx") return endsWithLower(s, ".vmx") ? "y" : "n";
  if (helper == "name") return isVmNameChar(s.at(0)) ? "y" : "n";
  return "no helper " + helper;
}

TEST(Text, EachHelperOnItsEdgeCases) {
  for (const std::vector<std::string>& row :
       readRows(ORVANE_SOURCE_DIR "/tests/text/data/helpers.tsv")) {
    EXPECT_EQ(apply(row[0], row.at(1)), row.at(2)) << row[0] << " '" << row[1] << "'";
  }
}

}  // namespace
}  // namespace orvane::testing
