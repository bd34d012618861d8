#include "logging/logger.h"

#include <gtest/gtest.h>

#include <iostream>
#include <regex>
#include <sstream>
#include <string>

#include "support/temp_dir.h"

namespace orvane {
namespace {

using testing::TempDir;
using testing::readFile;

/// Captures std::cout and std::cerr for its lifetime.
class ConsoleCapture {
 public:
  ConsoleCapture() : savedOut_(std::cout.rdbuf(out_.rdbuf())), savedErr_(std::cerr.rdbuf(err_.rdbuf())) {}
  ~ConsoleCapture() {
    std::cout.rdbuf(savedOut_);
    std::cerr.rdbuf(savedErr_);
  }
  std::string out() const { return out_.str(); }
  std::string err() const { return err_.str(); }

 private:
  std::ostringstream out_, err_;
  std::streambuf* savedOut_;
  std::streambuf* savedErr_;
};

const std::string kStamp = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\])";

bool matches(const std::string& pattern, const std::string& text) {
  return std::regex_match(text, std::regex(pattern));
}

TEST(Logger, LineFormatsAndStreams) {
  const struct {
    void (Logger::*write)(const std::string&);
    std::string message;
    std::string pattern;  // of the one line, newline included
    bool toStdout;
  } cases[] = {
      {&Logger::info, "Step 1/7: Validation", kStamp + " Step 1/7: Validation\n", true},
      {&Logger::warn, "disk low", kStamp + " WARN:  disk low\n", false},
      {&Logger::error, "no pool", kStamp + " ERROR: no pool\n", false},
      {&Logger::trace, "x", kStamp + "   x\n", false},
      {&Logger::emit, "  plain report", "  plain report\n", true},
      {&Logger::emit, "", "\n", true},
      {&Logger::info, "two\nlines", kStamp + " two\nlines\n", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    TempDir dir;
    Logger log;
    log.setVerbose(true);
    log.setRunLogPath(dir.file("run.log"));
    ConsoleCapture console;
    (log.*c.write)(c.message);
    const std::string shown = c.toStdout ? console.out() : console.err();
    EXPECT_TRUE(matches(c.pattern, shown)) << shown;
    EXPECT_EQ("", c.toStdout ? console.err() : console.out());
    EXPECT_EQ(shown, readFile(dir.file("run.log")));
  }
}

TEST(Logger, TraceOnlyWhenVerbose) {
  TempDir dir;
  Logger log;
  log.setRunLogPath(dir.file("run.log"));
  {
    ConsoleCapture console;
    log.trace("hidden");
    EXPECT_EQ("", console.err());
    EXPECT_EQ("", console.out());
  }
  EXPECT_EQ("", readFile(dir.file("run.log")));

  log.setVerbose(true);
  ConsoleCapture console;
  log.trace("shown");
  EXPECT_TRUE(matches(kStamp + "   shown\n", console.err())) << console.err();
  EXPECT_EQ(console.err(), readFile(dir.file("run.log")));
}

TEST(Logger, RunLogAppendsEveryLineInOrder) {
  TempDir dir;
  const std::string path = dir.file("run.log");
  testing::writeFile(path, "earlier\n");
  Logger log;
  log.setRunLogPath(path);
  ConsoleCapture console;
  log.emit("one");
  log.warn("two");
  log.emit("three");
  EXPECT_TRUE(matches("earlier\none\n" + kStamp + " WARN:  two\nthree\n", readFile(path)))
      << readFile(path);
}

TEST(Logger, NoRunLogUntilAPathIsSetAndNoneAfterItIsCleared) {
  TempDir dir;
  const std::string path = dir.file("run.log");
  Logger log;
  ConsoleCapture console;
  log.info("before");
  log.setRunLogPath(path);
  log.info("during");
  log.setRunLogPath("");
  log.info("after");
  EXPECT_TRUE(matches(kStamp + " during\n", readFile(path))) << readFile(path);
  EXPECT_TRUE(matches("(" + kStamp + " \\w+\n){3}", console.out())) << console.out();
}

TEST(Logger, MissingRunLogDirectoryIsSilent) {
  TempDir dir;
  Logger log;
  log.setRunLogPath(dir.file("missing/run.log"));
  ConsoleCapture console;
  log.info("still shown");
  log.error("also shown");
  EXPECT_TRUE(matches(kStamp + " still shown\n", console.out())) << console.out();
  EXPECT_TRUE(matches(kStamp + " ERROR: also shown\n", console.err())) << console.err();
  EXPECT_EQ(dir.file("missing/run.log"), log.runLogPath());
}

}  // namespace
}  // namespace orvane
