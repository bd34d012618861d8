#include "support/temp_dir.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orvane::testing {

TempDir::TempDir(const std::string& prefix) : path_("/tmp/" + prefix + "-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::string& path, const std::string& content, int mode) {
  if (!(std::ofstream(path, std::ios::binary) << content)) throw std::runtime_error(path);
  chmod(path.c_str(), static_cast<mode_t>(mode));
}

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace orvane::testing
