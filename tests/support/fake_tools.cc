#include "support/fake_tools.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace orvane::testing {

FakeTools::FakeTools() : dir_("orvane-fake-tools") {
  const char* path = std::getenv("PATH");
  hadPath_ = path != nullptr;
  if (hadPath_) savedPath_ = path;
  std::string newPath = dir_.path() + (hadPath_ ? ":" + savedPath_ : "");
  setenv("PATH", newPath.c_str(), 1);
}

FakeTools::~FakeTools() {
  if (hadPath_) {
    setenv("PATH", savedPath_.c_str(), 1);
  } else {
    unsetenv("PATH");
  }
}

void FakeTools::add(const std::string& name, const std::string& body) {
  writeFile(dir_.file(name), "#!/bin/sh\n" + body + "\n", 0755);
}

void FakeTools::addRecording(const std::string& name, const std::string& body) {
  // Calls are numbered so that argv and stdin of one call stay paired; the stdin is
  // read only when something is there, so a fake never blocks on a terminal.
  std::string rec = dir_.file(name);
  std::string script =
      "n=$(ls '" + rec + ".argv.'* 2>/dev/null | wc -l)\n"
      "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > '" + rec + ".argv.'$n\n"
      "if [ -p /dev/stdin ] || [ -f /dev/stdin ]; then cat > '" + rec +
      ".stdin.'$n; else : > '" + rec + ".stdin.'$n; fi\n" + body;
  add(name, script);
}

std::vector<std::vector<std::string>> FakeTools::calls(const std::string& name) const {
  std::vector<std::vector<std::string>> out;
  for (int n = 0;; ++n) {
    std::string f = dir_.file(name + ".argv." + std::to_string(n));
    if (!std::filesystem::exists(f)) break;
    std::vector<std::string> argv;
    std::istringstream in(readFile(f));
    for (std::string line; std::getline(in, line);) argv.push_back(line);
    out.push_back(argv);
  }
  return out;
}

std::vector<std::string> FakeTools::stdins(const std::string& name) const {
  std::vector<std::string> out;
  for (int n = 0;; ++n) {
    std::string f = dir_.file(name + ".stdin." + std::to_string(n));
    if (!std::filesystem::exists(f)) break;
    out.push_back(readFile(f));
  }
  return out;
}

}  // namespace orvane::testing
