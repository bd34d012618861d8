#include <csignal>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "conversion/conversion_fixture.h"
#include "support/private_log_dir.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

TEST_F(ConversionTest, SuccessfulRunDefinesTheVmAndRecordsSuccess) {
  EXPECT_EQ(0, run(options()));
  ASSERT_EQ(1u, libvirt_->definedXml.size());
  EXPECT_TRUE(fs::exists(output_.file("web01.qcow2")));
  EXPECT_TRUE(libvirt_->undefined.empty());
  EXPECT_TRUE(hasLine(outLines(), "VM 'web01' defined (powered off; start it when you're ready)."));
  EXPECT_EQ(0u, lastRecord().find(" vm=web01 result=success source=vmware firmware=bios "
                                  "hw=sata+e1000 duration="))
      << lastRecord();
}

TEST_F(ConversionTest, StepsAreAnnouncedInOrderOutOfSeven) {
  run(options());
  std::vector<std::string> steps;
  for (const auto& line : outLines()) {
    if (line.rfind("Step ", 0) == 0) steps.push_back(line.substr(0, 9));
  }
  std::vector<std::string> expected = {"Step 1/7:", "Step 1/7:", "Step 2/7:", "Step 3/7:",
                                       "Step 4/7:", "Step 5/7:", "Step 6/7:", "Step 7/7:"};
  EXPECT_EQ(expected, steps);
}

TEST_F(ConversionTest, SigintDuringConversionStopsAfterItWithoutRollback) {
  converter_->during = [](int) { std::raise(SIGINT); };
  EXPECT_EQ(130, run(options()));
  // The disk that was converting finished; nothing after the check point ran.
  EXPECT_TRUE(fs::exists(output_.file("web01.qcow2")));
  EXPECT_TRUE(fixer_->calls.empty());
  EXPECT_TRUE(libvirt_->definedXml.empty());
  for (const auto& line : errLines()) EXPECT_EQ(std::string::npos, line.find("Rolling back"));
  std::string record = lastRecord();
  EXPECT_NE(std::string::npos, record.find(" result=interrupted "));
  EXPECT_EQ(std::string::npos, record.find("stage="));
  EXPECT_EQ(record.size() - 25, record.find(" reason=\"SIGINT (Ctrl-C)\"")) << record;
}

TEST_F(ConversionTest, FailureAfterDefinitionUndefinesAndDeletesWhatTheRunMade) {
  libvirt_->poolPath = output_.path();
  Options o = options();
  o.outputDir.clear();  // the default pool, so the refresh runs
  libvirt_->onRefresh = [] { throw std::runtime_error("pool exploded"); };
  // Something this run did not create must survive the rollback.
  writeFile(output_.file("other.qcow2"), "keep");
  EXPECT_EQ(1, run(o));
  EXPECT_EQ(std::vector<std::string>{"web01"}, libvirt_->undefined);
  EXPECT_FALSE(fs::exists(output_.file("web01.qcow2")));
  EXPECT_TRUE(fs::exists(output_.file("other.qcow2")));
  std::vector<std::string> err = errLines();
  EXPECT_TRUE(hasLine(err, "ERROR: Unexpected error: pool exploded"));
  EXPECT_TRUE(hasLine(err, "WARN:  Rolling back: undefining VM 'web01'."));
  EXPECT_TRUE(hasLine(err, "WARN:  Rolling back: deleting " + output_.file("web01.qcow2")));
  EXPECT_TRUE(hasLine(outLines(), "Partial conversion rolled back; no Orvane VM left behind."));
  EXPECT_NE(std::string::npos, lastRecord().find(" result=failure stage=post_create "));
}

TEST_F(ConversionTest, FailureBeforeAnythingExistsHasNoRollbackLines) {
  libvirt_->reachable = false;
  EXPECT_EQ(1, run(options()));
  EXPECT_TRUE(libvirt_->undefined.empty());
  EXPECT_EQ(std::string::npos, err_.find("Rolling back"));
  EXPECT_EQ(std::string::npos, out_.find("rolled back"));
}

TEST_F(ConversionTest, RunLogIsNamedAfterTheVmAndHoldsTheConsoleLines) {
  run(options());
  std::vector<fs::path> logs;
  for (const auto& e : fs::directory_iterator(kTestRunLogDir)) logs.push_back(e.path());
  ASSERT_EQ(1u, logs.size());
  std::string name = logs[0].filename().string();
  EXPECT_EQ(0u, name.find("web01-")) << name;
  EXPECT_TRUE(std::regex_match(name, std::regex(R"(web01-\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.log)")));
  std::vector<std::string> log = consoleLines(readFile(logs[0].string()));
  ASSERT_GE(log.size(), 4u);
  EXPECT_EQ("orvane-v2v v0.2.2 starting", log[0]);
  EXPECT_EQ("Source path: " + source_.path(), log[1]);
  EXPECT_EQ("Mode: FULL RUN", log[3]);
  EXPECT_TRUE(hasLine(log, "Full log: " + logs[0].string()));
}

TEST_F(ConversionTest, EarlyFailureNamesTheLogAfterTheSanitisedFolder) {
  TempDir parent("orvane-src-parent");
  std::string folder = parent.file("Web Server");
  fs::create_directory(folder);
  Options o = options();
  o.path = folder;  // no .vmx in it
  EXPECT_EQ(1, run(o));
  EXPECT_EQ(0u, lastRecord().find(" vm=Web Server result=failure stage=validation duration="))
      << lastRecord();
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(kTestRunLogDir)) {
    names.push_back(e.path().filename().string());
  }
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ(0u, names[0].find("Web_Server-")) << names[0];
}

TEST_F(ConversionTest, MissingPathRecordsUnknownAndPrintsUsage) {
  Options o = options();
  o.path.clear();
  EXPECT_EQ(1, run(o));
  EXPECT_TRUE(hasLine(errLines(), "ERROR: Missing required argument: --path"));
  EXPECT_NE(std::string::npos, err_.find("\nUsage:\n"));
  EXPECT_EQ(0u, lastRecord().find(" vm=<unknown> result=failure stage=validation"));
}

TEST_F(ConversionTest, DryRunNeverRollsBackAndRecordsItsVerdict) {
  writeFile(output_.file("web01.qcow2"), "left from an earlier run");
  EXPECT_EQ(1, run(options(/*dryRun=*/true)));
  EXPECT_TRUE(fs::exists(output_.file("web01.qcow2")));
  EXPECT_TRUE(converter_->calls.empty());
  EXPECT_NE(std::string::npos, lastRecord().find(" result=dry_run_failed "));
}

}  // namespace
}  // namespace orvane::testing
