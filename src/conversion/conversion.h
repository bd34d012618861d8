#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cli/options.h"
#include "logging/logger.h"

namespace orvane {

/// 0, or the number of the last termination signal received during the run.
extern volatile std::sig_atomic_t gPendingSignal;

class LibvirtBackend;
class DomainXmlBuilder;
class BootFixer;
class DiskConverter;
struct VmxData;

/// One migration from start to end: owns the options, the logger, the four host-tool
/// adapters and everything the steps learn; `run` turns every outcome into an exit code.
class Conversion {
 public:
  /// Production: the four real adapters.
  explicit Conversion(Options options);
  /// Any adapters, so that the host can be replaced in tests. Does no I/O.
  Conversion(Options options, std::unique_ptr<LibvirtBackend> libvirt,
             std::unique_ptr<DomainXmlBuilder> xmlBuilder,
             std::unique_ptr<BootFixer> bootFixer,
             std::unique_ptr<DiskConverter> diskConverter);
  ~Conversion();
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;

  /// Runs once; returns 0, 1, 2 or 128 + the signal number.
  int run();
  /// Rolls back what this failed run created; returns `code` unchanged.
  int finish(int code);
  void installSignalHandlers();
  /// Throws V2vInterrupted when a termination signal is pending.
  void checkSignal();
  /// Collected in a dry run; logged and fatal in a real run.
  void noteBlocker(const std::string& message, int code);

  void checkExpiration();
  void openRunLog();
  void logBanner();
  void nameRunLog();
  void validate();
  void ingest();
  void printHeadsUp();
  void planDiskTargets();
  std::string macInUseBy(const std::string& mac);
  void checkFreeSpace();
  int dryRunSummary();
  void confirmOrAbort();
  /// Creates every target exclusively, then checks the VM name again: what another
  /// run made since the preflight checks stops this one before anything is written.
  void claimTargets();
  void convertDisks();
  void bootFix();
  void defineVm();
  void refreshPool();
  void summarize();
  void writeApplicationSummary(int exitCode);

 private:
  // The parts of validate(), in the order it runs them.
  void checkInvocation();
  void checkHostTools();
  void checkDefaultNetwork();
  void chooseOutputDir();
  void findVmx();
  // The parts of ingest(), in the order it runs them.
  VmxData readVmx();
  void checkSourceDisks(const VmxData& vmx);
  void readMachine(const VmxData& vmx);
  void chooseVmName();
  void chooseGuestSettings();
  void chooseDeviceModels();
  void logSourceSummary(const VmxData& vmx);
  void runPreflightChecks();
  /// Removes the claimed targets that hold no finished image; `loud` logs each one.
  /// True when one was removed.
  bool removeClaimedTargets(bool loud);
  /// The one line that tells an interrupted run's user what it left, and where.
  void reportLeftAfterInterrupt();
  void loadDomainMacs();

  Options options_;
  Logger log_;
  std::unique_ptr<LibvirtBackend> libvirt_;
  std::unique_ptr<DomainXmlBuilder> xmlBuilder_;
  std::unique_ptr<BootFixer> bootFixer_;
  std::unique_ptr<DiskConverter> diskConverter_;

  std::string sourceType_;
  std::string vmxPath_;
  std::string vmName_;
  std::string rawVmName_;
  std::string outputDir_;
  bool usedDefaultPool_ = false;
  std::string firmware_;
  std::string osFamily_;
  bool legacyWindows_ = false;
  bool hasVtpm_ = false;
  bool hasPassthrough_ = false;
  bool hasSerial_ = false;
  int numCpus_ = 0;
  std::int64_t memSizeMb_ = 0;
  std::string guestOs_;
  std::vector<std::string> macAddresses_;
  std::vector<std::string> vmdkFiles_;
  std::vector<std::string> snapDisks_;
  std::string diskBus_;
  std::string nicModel_;
  std::string devPrefix_;
  std::string osinfo_;
  std::string osVariantDesc_;
  std::string clockOffset_;
  std::vector<std::string> targetQcows_;
  std::vector<std::string> targetDevs_;
  std::vector<std::string> createdQcows_;
  /// Targets this run created empty and has not finished: rolled back on any failure.
  std::vector<std::string> claimedQcows_;
  std::vector<std::string> dryIssues_;
  bool vmDefined_ = false;
  std::string efiFixNote_;
  bool stepValidateOk_ = false;
  bool stepIngestOk_ = false;
  bool stepConvertOk_ = false;
  bool stepBootfixOk_ = false;
  bool stepCreateOk_ = false;
  int totalSteps_ = 7;
  std::string runTs_;
  std::string runLogPending_;
  std::string runLogActive_;
  std::chrono::steady_clock::time_point startTime_;
  /// Every domain's lower-cased MAC addresses, read once per run for all NICs.
  std::vector<std::pair<std::string, std::vector<std::string>>> domainMacs_;
  bool domainMacsLoaded_ = false;
};

/// Writes the run's outcome record on every way out of `run`.
class RunRecorder {
 public:
  explicit RunRecorder(Conversion& conv) : conv_(conv) {}
  ~RunRecorder();
  RunRecorder(const RunRecorder&) = delete;
  RunRecorder& operator=(const RunRecorder&) = delete;
  void setExitCode(int code) { exitCode_ = code; }

 private:
  Conversion& conv_;
  int exitCode_ = 1;
};

}  // namespace orvane
