#pragma once

#include <string>

namespace orvane::testing {

/// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "orvane-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// Writes `content` to `path`, creating or truncating it; `mode` as for chmod.
void writeFile(const std::string& path, const std::string& content, int mode = 0644);
/// The whole file, or "" when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace orvane::testing
