#pragma once

#include <map>
#include <string>
#include <vector>

#include "cli/options.h"
#include "conversion/conversion.h"

namespace orvane::testing {

/// The host the four fake adapters share. Each call is logged as one line, the two
/// folders written {src} and {out}, and answered by the `says` entry of that line
/// (equal keys answer in turn): "no", "<exit>|<stdout>|<stderr>" from qemu-img,
/// "<outcome>|<note>|<copied from>" from guestfish, "<name> <xml>|..." from dumpxml,
/// "throw <why>" or "fail <tool error>". "raise <line>" raises a signal at that call;
/// "taken" names a file another run makes in the output folder after the MAC check.
struct FakeHost {
  std::multimap<std::string, std::string> says;
  std::vector<std::string> calls;
  std::string src, out;
  std::string get(const std::string& key) const;
};

/// The one host all fakes use; a test sets it before each run.
FakeHost& fakeHost();
/// A conversion whose four adapters are fakes of fakeHost().
Conversion fakeConversion(Options options);

}  // namespace orvane::testing
