#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cli/options.h"
#include "conversion/conversion.h"
#include "fakes/fake_adapters.h"
#include "support/console_lines.h"
#include "support/fake_tools.h"
#include "support/temp_dir.h"

namespace orvane::testing {

/// Runs a Conversion against the fake adapters, a source folder and an output
/// directory of its own, with its console output captured and its logs in a
/// private tmpfs.
class ConversionTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Writes <source>/<name> with `body`; a default one-disk BIOS Linux guest otherwise.
  void writeVmx(const std::string& body, const std::string& name = "web01.vmx");
  /// A flat-extent descriptor with no parent, as a consolidated disk has.
  void writeDisk(const std::string& name, const std::string& parentLine = "");
  Options options(bool dryRun = false) const;
  /// Fresh fakes for a second run in the same test.
  void resetFakes();
  /// Runs a conversion; `stdinText` answers the confirmation prompt.
  int run(const Options& options, const std::string& stdinText = "");

  /// Console lines with the "[timestamp] " prefix removed.
  std::vector<std::string> outLines() const;
  std::vector<std::string> errLines() const;
  /// The application log's last line without its "[time]" field.
  std::string lastRecord() const;

  TempDir source_{"orvane-src"};
  TempDir output_{"orvane-out"};
  FakeTools tools_;
  std::unique_ptr<FakeLibvirtBackend> libvirtOwner_ = std::make_unique<FakeLibvirtBackend>();
  std::unique_ptr<FakeDomainXmlBuilder> xmlOwner_ = std::make_unique<FakeDomainXmlBuilder>();
  std::unique_ptr<FakeBootFixer> fixerOwner_ = std::make_unique<FakeBootFixer>();
  std::unique_ptr<FakeDiskConverter> converterOwner_ = std::make_unique<FakeDiskConverter>();
  FakeLibvirtBackend* libvirt_ = libvirtOwner_.get();
  FakeDomainXmlBuilder* xml_ = xmlOwner_.get();
  FakeBootFixer* fixer_ = fixerOwner_.get();
  FakeDiskConverter* converter_ = converterOwner_.get();
  std::unique_ptr<Conversion> conversion_;
  std::string out_;
  std::string err_;
};


}  // namespace orvane::testing
