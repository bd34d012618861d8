#include "support/fake_tools.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace orvane::testing {

FakeTools::FakeTools() : dir_("orvane-fake-tools"), savedPath_(std::getenv("PATH")) {
  setenv("PATH", (dir() + ":" + savedPath_).c_str(), 1);
}

FakeTools::~FakeTools() { setenv("PATH", savedPath_.c_str(), 1); }

void FakeTools::add(const std::string& name, const std::string& body) {
  writeFile(dir_.file(name), "#!/bin/sh\n" + body + "\n", 0755);
}

void FakeTools::addRecording(const std::string& name, const std::string& body) {
  // Numbered so that argv and stdin of one call stay paired; stdin is read only from
  // a pipe or a file, so a fake never blocks on a terminal.
  const std::string rec = "'" + dir_.file(name) + "'";
  add(name, "n=$(ls " + rec + ".argv.* 2>/dev/null | wc -l)\n"
            "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > " + rec + ".argv.$n\n"
            "if [ -p /dev/stdin ] || [ -f /dev/stdin ]; then cat; fi > " + rec + ".stdin.$n\n" +
            body);
}

std::vector<std::string> FakeTools::recorded(const std::string& name,
                                             const std::string& kind) const {
  std::vector<std::string> out;
  for (std::string f; std::filesystem::exists(
           f = dir_.file(name + "." + kind + "." + std::to_string(out.size())));) {
    out.push_back(readFile(f));
  }
  return out;
}

std::vector<std::vector<std::string>> FakeTools::calls(const std::string& name) const {
  std::vector<std::vector<std::string>> out;
  for (const std::string& text : recorded(name, "argv")) {
    std::istringstream in(text);
    out.emplace_back();
    for (std::string line; std::getline(in, line);) out.back().push_back(line);
  }
  return out;
}

std::vector<std::string> FakeTools::stdins(const std::string& name) const {
  return recorded(name, "stdin");
}

}  // namespace orvane::testing
