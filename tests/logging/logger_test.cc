#include "logging/logger.h"

#include <gtest/gtest.h>

#include <ctime>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

#include "support/temp_dir.h"

namespace orvane {
namespace {

using testing::readFile;
using testing::TempDir;

/// Captures std::cout and std::cerr for its lifetime.
class ConsoleCapture {
 public:
  ConsoleCapture()
      : savedOut_(std::cout.rdbuf(out_.rdbuf())),
        savedErr_(std::cerr.rdbuf(err_.rdbuf())) {}
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

// Stands for a timestamp in expected texts. The pattern is matched by hand:
// std::regex trips GCC 12's maybe-uninitialized warning in sanitizer builds.
const std::string kStamp = "[TS]";

/// `text` with every "[YYYY-MM-DD HH:MM:SS]" at a line start replaced by kStamp.
std::string maskTimestamps(const std::string& text) {
  static constexpr std::string_view kShape = "[dddd-dd-dd dd:dd:dd]";
  std::string masked;
  std::size_t i = 0;
  while (i < text.size()) {
    bool stamp = text.size() - i >= kShape.size();
    for (std::size_t k = 0; stamp && k < kShape.size(); ++k) {
      const char c = text[i + k];
      stamp = kShape[k] == 'd' ? (c >= '0' && c <= '9') : c == kShape[k];
    }
    if (stamp) {
      masked += kStamp;
      i += kShape.size();
    }
    const std::size_t end = text.find('\n', i);
    const std::size_t next = end == std::string::npos ? text.size() : end + 1;
    masked.append(text, i, next - i);
    i = next;
  }
  return masked;
}

TEST(Logger, LineFormatsAndStreams) {
  const struct {
    void (Logger::*write)(const std::string&);
    std::string message;
    std::string expected;  // the one line, newline included, timestamp masked
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
    EXPECT_EQ(c.expected, maskTimestamps(shown));
    EXPECT_EQ("", c.toStdout ? console.err() : console.out());
    EXPECT_EQ(shown, readFile(dir.file("run.log")));
  }
}

std::string localNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char buffer[32];
  return std::string(buffer,
                     std::strftime(buffer, sizeof buffer, "[%Y-%m-%d %H:%M:%S]", &local));
}

TEST(Logger, TimestampIsTheLocalTimeOfTheCall) {
  Logger log;
  ConsoleCapture console;
  const std::string before = localNow();
  log.info("now");
  const std::string after = localNow();
  const std::string stamp = console.out().substr(0, before.size());
  // This format sorts as text, so a second boundary crossed mid-call is allowed for.
  EXPECT_LE(before, stamp);
  EXPECT_GE(after, stamp);
  EXPECT_EQ(kStamp + " now\n", maskTimestamps(console.out()));
}

TEST(Logger, HiddenTracesStayOutOfTheRunLogToo) {
  TempDir dir;
  Logger log;
  log.setRunLogPath(dir.file("run.log"));
  ConsoleCapture console;
  log.trace("hidden");
  log.emit("shown");
  EXPECT_EQ("", console.err());
  EXPECT_EQ("shown\n", readFile(dir.file("run.log")));
}

TEST(Logger, RunLogFollowsThePathAndIgnoresAMissingDirectory) {
  TempDir dir;
  const std::string path = dir.file("run.log");
  testing::writeFile(path, "earlier\n");
  Logger log;
  ConsoleCapture console;
  log.info("before");
  log.setRunLogPath(dir.file("missing/run.log"));
  log.info("unwritable");
  log.setRunLogPath(path);
  log.warn("appended");
  log.setRunLogPath("");
  log.info("after");
  EXPECT_EQ("earlier\n" + kStamp + " WARN:  appended\n", maskTimestamps(readFile(path)));
  EXPECT_EQ(kStamp + " before\n" + kStamp + " unwritable\n" + kStamp + " after\n",
            maskTimestamps(console.out()));
}

}  // namespace
}  // namespace orvane
