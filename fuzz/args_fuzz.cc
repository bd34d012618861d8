// parseArgs on an argument vector made from the input split at NUL bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/parse_args.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> words;
  if (size > 0) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t start = 0;
    while (true) {
      const std::size_t nul = input.find('\0', start);
      words.push_back(input.substr(start, nul == std::string::npos ? nul : nul - start));
      if (nul == std::string::npos) break;
      start = nul + 1;
    }
  }

  std::string programName = "orvane-v2v";
  std::vector<char*> argv{programName.data()};
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const orvane::ParseResult result =
      orvane::parseArgs(static_cast<int>(argv.size() - 1), argv.data());

  std::string joined;
  for (std::size_t i = 0; i < words.size(); ++i) joined += (i > 0 ? " " : "") + words[i];
  if (result.options.invocation != joined) __builtin_trap();
  if (result.helpRequested && result.hadError) __builtin_trap();
  if (result.hadError) {
    const std::string prefix = "Unknown option: ";
    if (result.errorMessage.compare(0, prefix.size(), prefix) != 0) __builtin_trap();
    bool named = false;
    for (const std::string& word : words)
      named = named || prefix + word == result.errorMessage;
    if (!named) __builtin_trap();
  }
  return 0;
}
