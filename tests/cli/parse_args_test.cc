#include "cli/parse_args.h"

#include <gtest/gtest.h>

#include "cli/usage.h"
#include "vmx/test_tables.h"

namespace orvane::testing {
namespace {

ParseResult parseWords(std::vector<std::string> words) {
  words.insert(words.begin(), "orvane-v2v");
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return parseArgs(static_cast<int>(words.size()), argv.data());
}

TEST(ParseArgs, EachCommandLineParsesAsExpected) {
  for (const auto& row :
       readRows(std::string(ORVANE_SOURCE_DIR) + "/tests/cli/data/parse.tsv")) {
    // The words: split at blanks, then unescaped once more ("\\x20" is a blank in a
    // word); '' is an empty word.
    std::vector<std::string> words;
    for (std::size_t start = 0, end = 0; start < row[0].size(); start = end + 1) {
      end = std::min(row[0].find(' ', start), row[0].size());
      words.push_back(unescape(row[0].substr(start, end - start)));
      if (words.back() == "''") words.back().clear();
    }
    const ParseResult r = parseWords(words);
    const Options& o = r.options;
    std::string got = (o.path.empty() ? "" : " path=" + o.path) +
                      (o.outputDir.empty() ? "" : " output=" + o.outputDir) +
                      (o.vmName.empty() ? "" : " name=" + o.vmName);
    std::string flags = std::string(o.virtio ? "V" : "") + (o.assumeYes ? "y" : "") +
                        (o.dryRun ? "d" : "") + (o.verbose ? "v" : "");
    got += (flags.empty() ? "" : " flags=" + flags) + (r.helpRequested ? " help" : "") +
           (r.hadError || !r.errorMessage.empty() ? " error=" + r.errorMessage : "");
    EXPECT_EQ(got.empty() ? "nothing" : got.substr(1), row.at(1)) << row[0];
    // Recorded whole, without quoting, even when the walk stopped early.
    EXPECT_EQ(o.invocation, joined(words, " ")) << row[0];
  }
}

TEST(ParseArgs, EveryOptionTheUsageNamesIsTaken) {
  const std::string usage = usageText();
  for (std::size_t at = 0; (at = usage.find(" -", at)) != std::string::npos; ++at) {
    const std::string word =
        usage.substr(at + 1, usage.find_first_of(" ,\n", at + 1) - at - 1);
    EXPECT_FALSE(parseWords({word}).hadError) << word;
  }
}

}  // namespace
}  // namespace orvane::testing
