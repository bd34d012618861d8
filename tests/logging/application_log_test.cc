#include "logging/application_log.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "support/host.h"

namespace orvane::testing {
namespace {

// The shared log never stops a run: what cannot be written is one warning on standard
// error, written below std::cerr, so it is caught at descriptor 2.
TEST(ApplicationLog, AppendsOrWarnsOnceByPath) {
  TempDir dir;
  writeFile(dir.file("file"), "not a directory\n");
  ::mkdir(dir.file("dir.log").c_str(), 0755);  // not a file, even for root
  const std::string cases[][3] = {
      {dir.file("a/b"), dir.file("a/b/v2v.log"), ""},
      {dir.file("a/b"), dir.file("a/b/v2v.log"), ""},
      {dir.file("file"), dir.file("file/v2v.log"),
       "WARN: Could not create application log directory: " + dir.file("file") + "\n"},
      {dir.path(), dir.file("dir.log"),
       "WARN: Could not write to application log: " + dir.file("dir.log") + "\n"},
  };
  for (const auto& [logDir, log, warning] : cases) {
    const int saved = ::dup(2);
    ::close(2);
    ::open(dir.file("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);  // takes 2
    appendApplicationLogAt(logDir, log, "record");
    std::fflush(stderr);
    ::dup2(saved, 2), ::close(saved);
    EXPECT_EQ(warning, readFile(dir.file("stderr")));
  }
  EXPECT_EQ("record\nrecord\n", readFile(dir.file("a/b/v2v.log")));
  EXPECT_EQ("not a directory\n", readFile(dir.file("file")));
}

}  // namespace
}  // namespace orvane::testing
