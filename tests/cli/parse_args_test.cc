#include "cli/parse_args.h"

#include "cli/usage.h"
#include "support/tables.h"

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
  for (const Case& c :
       readCases(std::string(ORVANE_SOURCE_DIR) + "/tests/cli/data/parse.txt")) {
    const ParseResult r = parseWords(c.all("arg"));
    const Options& o = r.options;
    const std::string flags = std::string(o.virtio ? "V" : "") +
                              (o.assumeYes ? "y" : "") + (o.dryRun ? "d" : "") +
                              (o.verbose ? "v" : "");
    std::string got;
    for (const auto& [key, value] : {std::pair{"path", o.path},
                                     {"output", o.outputDir},
                                     {"name", o.vmName},
                                     {"flags", flags},
                                     {"help", r.helpRequested ? "yes" : ""},
                                     {"error", r.errorMessage}}) {
      if (!value.empty()) got += std::string(key) + ": " + value + "\n";
    }
    EXPECT_EQ(got, c.text({"path", "output", "name", "flags", "help", "error"}))
        << c.name;
    EXPECT_EQ(r.hadError, !r.errorMessage.empty()) << c.name;
    // Recorded whole, without quoting, even when the walk stopped early.
    EXPECT_EQ(o.invocation, joined(c.all("arg"), " ")) << c.name;
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
