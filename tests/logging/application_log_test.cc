#include "logging/application_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>

#include "support/temp_dir.h"

namespace orvane {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeFile;

/// Sends file descriptor 2 to a file for its lifetime; the warnings are written with
/// fprintf, below std::cerr.
class StderrCapture {
 public:
  explicit StderrCapture(std::string path) : path_(std::move(path)) {
    std::fflush(stderr);
    saved_ = ::dup(2);
    std::FILE* file = std::fopen(path_.c_str(), "w");
    ::dup2(::fileno(file), 2);
    std::fclose(file);
  }
  ~StderrCapture() { restore(); }
  std::string text() {
    restore();
    return readFile(path_);
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    ::dup2(saved_, 2);
    ::close(saved_);
    saved_ = -1;
  }
  std::string path_;
  int saved_ = -1;
};

TEST(ApplicationLog, CreatesMissingDirectoriesAndAppendsLines) {
  TempDir dir;
  const std::string logDir = dir.file("a/b");
  const std::string logFile = logDir + "/orvane-v2v.log";
  StderrCapture err(dir.file("stderr"));
  appendApplicationLogAt(logDir, logFile, "first record");
  appendApplicationLogAt(logDir, logFile, "second record");
  EXPECT_EQ("first record\nsecond record\n", readFile(logFile));
  EXPECT_EQ("", err.text());
}

TEST(ApplicationLog, DirectoryThatIsARegularFileIsReportedByPath) {
  TempDir dir;
  const std::string logDir = dir.file("orvane");
  writeFile(logDir, "not a directory\n");
  StderrCapture err(dir.file("stderr"));
  appendApplicationLogAt(logDir, logDir + "/orvane-v2v.log", "record");
  EXPECT_EQ("WARN: Could not create application log directory: " + logDir + "\n",
            err.text());
  EXPECT_EQ("not a directory\n", readFile(logDir));
}

TEST(ApplicationLog, UnopenableFileIsReportedByPath) {
  TempDir dir;
  // A directory where the file should be: opening it for appending fails even as root.
  const std::string logFile = dir.file("orvane-v2v.log");
  ASSERT_EQ(0, ::mkdir(logFile.c_str(), 0755));
  StderrCapture err(dir.file("stderr"));
  appendApplicationLogAt(dir.path(), logFile, "record");
  EXPECT_EQ("WARN: Could not write to application log: " + logFile + "\n", err.text());
}

}  // namespace
}  // namespace orvane
