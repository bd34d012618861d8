// What parseArgs makes of each command line of data/parse.txt.
#include "cli/parse_args.h"

#include "support/tables.h"

namespace orvane::testing {
namespace {

TEST(ParseArgs, EachCommandLineParsesAsExpected) {
  for (const Case& c : readCases(ORVANE_SOURCE_DIR "/tests/cli/data/parse.txt")) {
    std::vector<std::string> words = c.all("arg");
    words.insert(words.begin(), "orvane-v2v");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    const ParseResult r = parseArgs(static_cast<int>(argv.size()), argv.data());
    const Options& o = r.options;
    const std::string flags = std::string(o.virtio ? "V" : "") +
                              (o.assumeYes ? "y" : "") + (o.dryRun ? "d" : "") +
                              (o.verbose ? "v" : "");
    for (const auto& [key, value] : {std::pair{"path", o.path},
                                     {"output", o.outputDir},
                                     {"name", o.vmName},
                                     {"flags", flags},
                                     {"help", r.helpRequested ? "yes" : ""},
                                     {"error", r.errorMessage}}) {
      EXPECT_EQ(value, c[key]) << c.name << ", " << key;
    }
    // Recorded whole, without quoting, even when the walk stopped early.
    EXPECT_EQ(o.invocation, joined(c.all("arg"), " ")) << c.name;
  }
}

}  // namespace
}  // namespace orvane::testing
