#include "text/text.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>

namespace orvane {
namespace {

// Each piece in brackets, so that no pieces ("") and one empty piece ("[]") differ.
template <typename Pieces>
std::string bracketed(const Pieces& pieces) {
  std::string out;
  for (const auto& piece : pieces) out += "[" + std::string(piece) + "]";
  return out;
}

TEST(Text, EachHelperOnItsEdgeCases) {
  const std::map<std::string, std::function<std::string(const std::string&)>> helpers = {
      {"trim", [](const std::string& s) { return std::string(trim(s)); }},
      {"lower", [](const std::string& s) { return toLowerAscii(s); }},
      {"split", [](const std::string& s) { return bracketed(split(s, ',')); }},
      {"lines", [](const std::string& s) { return bracketed(splitLines(s)); }},
      {"nonblank", [](const std::string& s) { return bracketed(nonBlankLines(s)); }},
      {"vmx", [](const std::string& s) { return endsWithLower(s, ".vmx") ? "y" : "n"; }},
      {"name", [](const std::string& s) {
         std::string out;
         for (char c : s) out += isVmNameChar(c) ? 'y' : 'n';
         return out;
       }}};
  const struct { const char* helper; std::string input, expected; } cases[] = {
      {"trim", "", ""}, {"trim", " \t\r\n\v\f", ""}, {"trim", "\t a b \r\n", "a b"},
      {"lower", "AbZ-@[`{9\xc9", "abz-@[`{9\xc9"},
      {"split", "", "[]"}, {"split", "a,,b,", "[a][][b][]"},
      {"lines", "", ""}, {"lines", "\n", "[]"}, {"lines", "a\r\nb", "[a\r][b]"},
      {"lines", "a\n\nb\n\n", "[a][][b][]"},
      {"nonblank", "web \t\r\n\n \r\n db\nx", "[web][ db][x]"}, {"nonblank", " \n", ""},
      {"vmx", "VM.VMX", "y"}, {"vmx", "vmx", "n"}, {"vmx", "a.vmxf", "n"},
      {"name", "AZaz09_.+-", "yyyyyyyyyy"}, {"name", "@[`{/: ~,\xe9", "nnnnnnnnnn"}};
  for (const auto& c : cases)
    EXPECT_EQ(c.expected, helpers.at(c.helper)(c.input)) << c.helper << " '" << c.input << "'";
}

}  // namespace
}  // namespace orvane
