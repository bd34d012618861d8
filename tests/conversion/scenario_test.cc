// Each folder under scenarios/ is one run of the conversion against the fake host. Its
// "case" table gives the run ("args", "stdin", the "vm" folder, "source-name",
// "sparse <file> <bytes>", the "tools" on PATH) and the host's answers; "expected"
// holds all the run leaves: exit code, both console streams, the host calls, the
// record, the run log and the output folder. ORVANE_UPDATE_GOLDEN=1 rewrites it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <numeric>
#include <sstream>

#include "cli/parse_args.h"
#include "cli/usage.h"
#include "fakes/fake_adapters.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
const std::string kData = ORVANE_SOURCE_DIR "/tests/conversion/";

/// Each entry under `dir`, sorted: a link's target, a small file's first line.
std::string listing(const std::string& dir) {
  std::vector<std::string> lines;
  for (const auto& e : fs::recursive_directory_iterator(dir)) {
    std::string line = fs::relative(e.path(), dir).string();
    if (e.is_symlink()) line += " -> " + fs::read_symlink(e.path()).string();
    if (!e.is_symlink() && e.is_regular_file()) {
      const std::string text = e.file_size() < 64 ? readFile(e.path()) : "";
      line += ": " + (text.empty() ? std::to_string(e.file_size()) + " bytes" : text.substr(0, text.find('\n')));
    }
    lines.push_back(line + "\n");
  }
  std::sort(lines.begin(), lines.end());
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

class Scenario : public ::testing::TestWithParam<std::string> {};

TEST_P(Scenario, LeavesWhatItsGoldenSays) {
  if (const std::string why = isolateLogDir(); !why.empty()) GTEST_SKIP() << why;
  const std::string dir = kData + "scenarios/" + GetParam();
  TempDir work("orvane-scenario");
  FakeHost& host = fakeHost = FakeHost{{}, {}, work.file("web01"), work.file("out")};
  for (const auto& row : readRows(dir + "/case")) host.says.emplace(row.at(0), row.size() > 1 ? row[1] : "");
  if (!host.get("source-name").empty()) host.src = work.file(host.get("source-name"));
  constexpr auto kCopy = fs::copy_options::recursive | fs::copy_options::copy_symlinks;
  fs::copy(kData + "vms/" + (host.get("vm").empty() ? "web01" : host.get("vm")), host.src, kCopy);
  fs::create_directory(host.out);
  if (fs::exists(dir + "/out")) fs::copy(dir + "/out", host.out, kCopy);
  for (auto [it, end] = host.says.equal_range("sparse"); it != end; ++it) {
    const std::string file = host.src + "/" + it->second.substr(0, it->second.find(' '));
    std::ofstream(file, std::ios::app).close();
    fs::resize_file(file, std::stoull(it->second.substr(it->second.find(' '))));
  }
  std::vector<std::string> words = {"orvane-v2v"};
  std::istringstream args(host.get("args"));
  for (std::string word; args >> word;) words.push_back(replaced(replaced(word, "{src}", host.src), "{out}", host.out));
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  const std::string sourceBefore = listing(host.src), path = std::getenv("PATH");
  const std::string tools = host.get("tools").empty() ? "all" : host.get("tools");
  // None of the host's own tools; empty elements must not stand for the current folder.
  tools == "unset" ? unsetenv("PATH") : setenv("PATH", ("::" + kData + "tools/" + tools + ":").c_str(), 1);
  fs::remove_all(kTestRunLogDir);
  fs::remove(kTestAppLog);

  std::ostringstream stdOut, stdErr;
  std::istringstream stdIn(host.get("stdin"));
  auto* savedOut = std::cout.rdbuf(stdOut.rdbuf());
  auto* savedErr = std::cerr.rdbuf(stdErr.rdbuf());
  auto* savedIn = std::cin.rdbuf(stdIn.rdbuf());
  gPendingSignal = 0;
  const int code = fakeConversion(parseArgs(static_cast<int>(argv.size()), argv.data()).options).run();
  gPendingSignal = 0;
  std::cout.rdbuf(savedOut);
  std::cerr.rdbuf(savedErr);
  std::cin.rdbuf(savedIn);
  setenv("PATH", path.c_str(), 1);

  std::string got = "exit " + std::to_string(code) + "\n== stdout\n" + stdOut.str() +
                    "== stderr\n" + stdErr.str() + "== host calls\n";
  for (const std::string& call : host.calls) got += call + "\n";
  got += "== record\n" + readFile(kTestAppLog);
  for (const auto& e : fs::directory_iterator(kTestRunLogDir)) {
    got += "== run log " + e.path().filename().string() + "\n" + readFile(e.path());
  }
  got += "== output folder\n" + listing(host.out);
  EXPECT_EQ(sourceBefore, listing(host.src)) << "the source folder is only ever read";
  got = replaced(replaced(replaced(got, usageText(), "{usage}\n"), host.src, "{src}"), host.out, "{out}");
  got = maskShape(maskShape(got, "[dddd-dd-dd dd:dd:dd]", "[time]"), "dddd-dd-dd_dd-dd-dd", "TIME");
  got = maskShape(got, " duration=ds", " duration=0s");
  for (std::size_t at = 0; (at = got.find(" has ~", at)) != std::string::npos; ++at) {
    got.erase(at + 6, got.find(' ', at + 6) - at - 6);  // the free space of this machine
  }
  if (std::getenv("ORVANE_UPDATE_GOLDEN") != nullptr) std::ofstream(dir + "/expected") << got;
  EXPECT_EQ(readFile(dir + "/expected"), got);
}

std::vector<std::string> scenarioNames() {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(kData + "scenarios")) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(Conversion, Scenario, ::testing::ValuesIn(scenarioNames()),
                         [](const auto& name) { return maskShape(name.param, "-", "_"); });

}  // namespace
}  // namespace orvane::testing
