#pragma once

#include <string>

namespace orvane {

/// The parsed command line. Parsing only copies values; the run checks them.
struct Options {
  std::string path;        ///< source VM folder (-p)
  std::string outputDir;   ///< image directory (-o); empty means the default pool
  std::string vmName;      ///< new VM name (-n); empty means the VMX display name
  bool virtio = false;     ///< --virtio
  bool assumeYes = false;  ///< -y
  bool dryRun = false;     ///< -d
  bool verbose = false;    ///< -v
  std::string invocation;  ///< the words after the program name, joined by blanks
};

}  // namespace orvane
