#include "cli/parse_args.h"

#include <string_view>
#include <vector>

namespace orvane {
namespace {

std::string joinSpace(const std::vector<std::string>& words) {
  std::string joined;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) joined += ' ';
    joined += words[i];
  }
  return joined;
}

/// The field a value option fills, or null when `word` is not a value option.
std::string* valueField(std::string_view word, Options& options) {
  if (word == "-p" || word == "--path") return &options.path;
  if (word == "-o" || word == "--output-dir") return &options.outputDir;
  if (word == "-n" || word == "--vm-name") return &options.vmName;
  return nullptr;
}

/// The flag `word` sets, or null when `word` is not a flag.
bool* flagField(std::string_view word, Options& options) {
  if (word == "--virtio") return &options.virtio;
  if (word == "-y" || word == "--yes") return &options.assumeYes;
  if (word == "-d" || word == "--dry-run") return &options.dryRun;
  if (word == "-v" || word == "--verbose") return &options.verbose;
  return nullptr;
}

}  // namespace

ParseResult parseArgs(int argc, char** argv) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) words.emplace_back(argv[i]);

  ParseResult result;
  Options& options = result.options;
  options.invocation = joinSpace(words);

  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (std::string* field = valueField(word, options)) {
      // The next word is taken whatever it looks like, so "-p -y" names a folder
      // "-y"; a value option at the very end leaves the field empty for the
      // validation step to reject with its own message.
      if (i + 1 < words.size()) {
        *field = words[++i];
      } else {
        field->clear();
      }
    } else if (bool* flag = flagField(word, options)) {
      *flag = true;
    } else if (word == "-h" || word == "--help") {
      result.helpRequested = true;
      return result;
    } else {
      result.hadError = true;
      result.errorMessage = "Unknown option: " + word;
      return result;
    }
  }
  return result;
}

}  // namespace orvane
