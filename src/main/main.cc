#include <iostream>

#include "cli/parse_args.h"
#include "cli/usage.h"
#include "conversion/conversion.h"
#include "logging/logger.h"

int main(int argc, char** argv) {
  using namespace orvane;
  ParseResult result = parseArgs(argc, argv);
  if (result.helpRequested) {
    std::cout << usageText();
    return 0;
  }
  if (result.hadError) {
    Logger().error(result.errorMessage);
    std::cerr << "\n" << usageText();
    return 1;
  }
  return Conversion(result.options).run();
}
