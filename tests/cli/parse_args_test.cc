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

struct ParseCase {
  const char* name;
  std::vector<std::string> words;
  // Expected outcome; the fields that matter for the case.
  std::string path, outputDir, vmName;
  bool virtio, assumeYes, dryRun, verbose, help, error;
  std::string errorMessage;
};

TEST(ParseArgs, Table) {
  const ParseCase cases[] = {
      {"nothing", {}, "", "", "", false, false, false, false, false, false, ""},
      {"every long form",
       {"--path", "/vm", "--output-dir", "/out", "--vm-name", "web", "--virtio", "--yes",
        "--dry-run", "--verbose"},
       "/vm", "/out", "web", true, true, true, true, false, false, ""},
      {"every short form",
       {"-p", "/vm", "-o", "/out", "-n", "web", "-y", "-d", "-v"},
       "/vm", "/out", "web", false, true, true, true, false, false, ""},
      {"later value wins", {"-p", "/vm", "-p", "/vm2"}, "/vm2", "", "", false, false, false,
       false, false, false, ""},
      {"repeated flag stays set", {"-y", "--yes"}, "", "", "", false, true, false, false,
       false, false, ""},
      {"error before help", {"-p", "/vm", "--bogus", "-h"}, "/vm", "", "", false, false,
       false, false, false, true, "Unknown option: --bogus"},
      {"help before error", {"-h", "--bogus"}, "", "", "", false, false, false, false, true,
       false, ""},
      {"help stops the walk", {"-y", "--help", "-d"}, "", "", "", false, true, false, false,
       true, false, ""},
      {"no equals form", {"--path=/vm"}, "", "", "", false, false, false, false, false, true,
       "Unknown option: --path=/vm"},
      {"value option last", {"-p", "/vm", "-n"}, "/vm", "", "", false, false, false, false,
       false, false, ""},
      {"value option last clears an earlier value", {"-n", "a", "-n"}, "", "", "", false,
       false, false, false, false, false, ""},
      {"value taken even when dashed", {"-o", "-v"}, "", "-v", "", false, false, false, false,
       false, false, ""},
      {"value taken even when it is help", {"-p", "-h"}, "-h", "", "", false, false, false,
       false, false, false, ""},
      {"no bundling", {"-yd"}, "", "", "", false, false, false, false, false, true,
       "Unknown option: -yd"},
      {"positional word", {"/vm"}, "", "", "", false, false, false, false, false, true,
       "Unknown option: /vm"},
      {"case matters", {"-P", "/vm"}, "", "", "", false, false, false, false, false, true,
       "Unknown option: -P"},
      {"no end marker", {"--"}, "", "", "", false, false, false, false, false, true,
       "Unknown option: --"},
      {"prefix of a long form", {"--verb"}, "", "", "", false, false, false, false, false,
       true, "Unknown option: --verb"},
      {"empty word", {"-y", ""}, "", "", "", false, true, false, false, false, true,
       "Unknown option: "},
  };
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.name);
    const ParseResult r = parseWords(c.words);
    EXPECT_EQ(c.path, r.options.path);
    EXPECT_EQ(c.outputDir, r.options.outputDir);
    EXPECT_EQ(c.vmName, r.options.vmName);
    EXPECT_EQ(c.virtio, r.options.virtio);
    EXPECT_EQ(c.assumeYes, r.options.assumeYes);
    EXPECT_EQ(c.dryRun, r.options.dryRun);
    EXPECT_EQ(c.verbose, r.options.verbose);
    EXPECT_EQ(c.help, r.helpRequested);
    EXPECT_EQ(c.error, r.hadError);
    EXPECT_EQ(c.errorMessage, r.errorMessage);
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
