#include "cli/parse_args.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvane {
namespace {

ParseResult parseWords(std::vector<std::string> words) {
  words.insert(words.begin(), "orvane-v2v");
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return parseArgs(static_cast<int>(words.size()), argv.data());
}

/// The flags that are set: 'V' virtio, 'y' assumeYes, 'd' dryRun, 'v' verbose.
std::string flagsOf(const Options& options) {
  std::string flags;
  if (options.virtio) flags += 'V';
  if (options.assumeYes) flags += 'y';
  if (options.dryRun) flags += 'd';
  if (options.verbose) flags += 'v';
  return flags;
}

struct ParseCase {
  const char* name;
  std::vector<std::string> words;
  std::string path, outputDir, vmName, flags;
  bool help;
  std::string error;  ///< the expected errorMessage; hadError exactly when non-empty
};

TEST(ParseArgs, Table) {
  // clang-format off
  const ParseCase cases[] = {
      {"nothing", {}, "", "", "", "", false, ""},
      {"every long form",
       {"--path", "/vm", "--output-dir", "/out", "--vm-name", "web", "--virtio", "--yes",
        "--dry-run", "--verbose"},
       "/vm", "/out", "web", "Vydv", false, ""},
      {"every short form", {"-p", "/vm", "-o", "/out", "-n", "web", "-y", "-d", "-v"},
       "/vm", "/out", "web", "ydv", false, ""},
      {"later value wins", {"-p", "/vm", "-p", "/vm2"}, "/vm2", "", "", "", false, ""},
      {"repeated flag stays set", {"-y", "--yes"}, "", "", "", "y", false, ""},
      {"error before help", {"-p", "/vm", "--bogus", "-h"},
       "/vm", "", "", "", false, "Unknown option: --bogus"},
      {"help before error", {"-h", "--bogus"}, "", "", "", "", true, ""},
      {"help stops the walk", {"-y", "--help", "-d"}, "", "", "", "y", true, ""},
      {"no equals form", {"--path=/vm"},
       "", "", "", "", false, "Unknown option: --path=/vm"},
      {"value option last", {"-p", "/vm", "-n"}, "/vm", "", "", "", false, ""},
      {"value option last clears an earlier value", {"-n", "a", "-n"},
       "", "", "", "", false, ""},
      {"value taken even when dashed", {"-o", "-v"}, "", "-v", "", "", false, ""},
      {"value taken even when it is help", {"-p", "-h"}, "-h", "", "", "", false, ""},
      {"no bundling", {"-yd"}, "", "", "", "", false, "Unknown option: -yd"},
      {"positional word", {"/vm"}, "", "", "", "", false, "Unknown option: /vm"},
      {"case matters", {"-P", "/vm"}, "", "", "", "", false, "Unknown option: -P"},
      {"no end marker", {"--"}, "", "", "", "", false, "Unknown option: --"},
      {"prefix of a long form", {"--verb"},
       "", "", "", "", false, "Unknown option: --verb"},
      {"short form with a long dash", {"--y"},
       "", "", "", "", false, "Unknown option: --y"},
      {"empty word", {"-y", ""}, "", "", "", "y", false, "Unknown option: "},
  };
  // clang-format on
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.name);
    const ParseResult r = parseWords(c.words);
    EXPECT_EQ(c.path, r.options.path);
    EXPECT_EQ(c.outputDir, r.options.outputDir);
    EXPECT_EQ(c.vmName, r.options.vmName);
    EXPECT_EQ(c.flags, flagsOf(r.options));
    EXPECT_EQ(c.help, r.helpRequested);
    EXPECT_EQ(!c.error.empty(), r.hadError);
    EXPECT_EQ(c.error, r.errorMessage);
  }
}

TEST(ParseArgs, InvocationIsTheWordsJoinedWithoutQuoting) {
  const struct {
    std::vector<std::string> words;
    std::string invocation;
  } cases[] = {
      {{}, ""},
      {{"-p", "/mnt/my vm", "--yes"}, "-p /mnt/my vm --yes"},
      // Recorded whole even when the walk stops early.
      {{"--bogus", "-p", "/vm"}, "--bogus -p /vm"},
      {{"-n", ""}, "-n "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.invocation, parseWords(c.words).options.invocation);
  }
}

TEST(ParseArgs, NoArgvWordsAtAll) {
  char name[] = "orvane-v2v";
  char* argv[] = {name, nullptr};
  const ParseResult r = parseArgs(1, argv);
  EXPECT_FALSE(r.helpRequested);
  EXPECT_FALSE(r.hadError);
  EXPECT_EQ("", r.options.invocation);
  EXPECT_EQ(0, parseArgs(0, argv).options.invocation.size());
}

}  // namespace
}  // namespace orvane
