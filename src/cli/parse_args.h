#pragma once

#include <string>

#include "cli/options.h"

namespace orvane {

struct ParseResult {
  Options options;  ///< what was parsed, also when parsing stopped early
  bool helpRequested = false;
  bool hadError = false;
  std::string errorMessage;  ///< "Unknown option: <word>" when hadError
};

/// Parses argv[1..argc-1]; never throws for bad input. The walk stops at the first
/// help word or the first unrecognised word.
ParseResult parseArgs(int argc, char** argv);

}  // namespace orvane
