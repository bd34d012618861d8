#include "conversion/conversion_fixture.h"

#include <filesystem>
#include <fstream>
#include <iostream>

#include "support/private_log_dir.h"

namespace orvane::testing {

namespace {

const char* kDefaultVmx =
    ".encoding = \"UTF-8\"\n"
    "config.version = \"8\"\n"
    "virtualHW.version = \"19\"\n"
    "displayName = \"web01\"\n"
    "guestOS = \"ubuntu-64\"\n"
    "numvcpus = \"2\"\n"
    "memsize = \"2048\"\n"
    "scsi0.present = \"TRUE\"\n"
    "scsi0:0.present = \"TRUE\"\n"
    "scsi0:0.fileName = \"web01.vmdk\"\n"
    "ethernet0.present = \"TRUE\"\n"
    "ethernet0.addressType = \"generated\"\n"
    "ethernet0.generatedAddress = \"00:50:56:AB:CD:EF\"\n";

}  // namespace

void ConversionTest::SetUp() {
  std::string why = isolateLogDir();
  if (!why.empty()) GTEST_SKIP() << "needs a private mount namespace over the log dir: " << why;
  std::error_code ec;
  std::filesystem::remove_all(kTestRunLogDir, ec);
  std::filesystem::remove(kTestAppLog, ec);
  gPendingSignal = 0;
  for (const char* tool : {"virsh", "qemu-img", "virt-install", "guestfish"}) {
    tools_.add(tool, "exit 0");
  }
  libvirt_->poolPath = output_.path();
  writeVmx(kDefaultVmx);
  writeDisk("web01.vmdk");
}

void ConversionTest::TearDown() {
  conversion_.reset();
  gPendingSignal = 0;
}

void ConversionTest::writeVmx(const std::string& body, const std::string& name) {
  writeFile(source_.file(name), body);
}

void ConversionTest::writeDisk(const std::string& name, const std::string& parentLine) {
  writeFile(source_.file(name),
            "# Disk DescriptorFile\nversion=1\nCID=fffffffe\n" + parentLine +
                "createType=\"monolithicFlat\"\nRW 2048 FLAT \"" + name + "-flat\" 0\n");
  // The extent too: ingest refuses a disk whose descriptor names a missing file.
  writeFile(source_.file(name + "-flat"), "");
}

void ConversionTest::resetFakes() {
  conversion_.reset();
  libvirtOwner_ = std::make_unique<FakeLibvirtBackend>();
  xmlOwner_ = std::make_unique<FakeDomainXmlBuilder>();
  fixerOwner_ = std::make_unique<FakeBootFixer>();
  converterOwner_ = std::make_unique<FakeDiskConverter>();
  libvirt_ = libvirtOwner_.get();
  xml_ = xmlOwner_.get();
  fixer_ = fixerOwner_.get();
  converter_ = converterOwner_.get();
  libvirt_->poolPath = output_.path();
}

Options ConversionTest::options(bool dryRun) const {
  Options o;
  o.path = source_.path();
  o.outputDir = output_.path();
  o.dryRun = dryRun;
  o.assumeYes = true;
  return o;
}

int ConversionTest::run(const Options& opts, const std::string& stdinText) {
  conversion_ = std::make_unique<Conversion>(opts, std::move(libvirtOwner_), std::move(xmlOwner_),
                                             std::move(fixerOwner_), std::move(converterOwner_));
  std::ostringstream out;
  std::ostringstream err;
  std::istringstream in(stdinText);
  auto* oldOut = std::cout.rdbuf(out.rdbuf());
  auto* oldErr = std::cerr.rdbuf(err.rdbuf());
  auto* oldIn = std::cin.rdbuf(in.rdbuf());
  int code = conversion_->run();
  std::cout.rdbuf(oldOut);
  std::cerr.rdbuf(oldErr);
  std::cin.rdbuf(oldIn);
  std::cin.clear();
  out_ = out.str();
  err_ = err.str();
  return code;
}

std::vector<std::string> ConversionTest::outLines() const { return consoleLines(out_); }
std::vector<std::string> ConversionTest::errLines() const { return consoleLines(err_); }

std::string ConversionTest::lastRecord() const {
  // The record's first field is "[time]" with no blank after it.
  std::string last = lastLineOf(kTestAppLog);
  return last.size() > 21 && last[0] == '[' ? last.substr(21) : last;
}

}  // namespace orvane::testing
