#include <chrono>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "cli/usage.h"
#include "conversion/conversion.h"
#include "conversion/outcome_record.h"
#include "conversion/step_helpers.h"
#include "logging/application_log.h"
#include "text/text.h"

namespace orvane {

namespace {

constexpr const char* kRunLogDir = "/var/log/orvane/v2v";

}  // namespace

void Conversion::openRunLog() {
  runTs_ = strftimeNow("%Y-%m-%d_%H-%M-%S");
  std::error_code ec;
  std::filesystem::create_directories(kRunLogDir, ec);
  // The conversion does not depend on its logs: without a directory the run goes
  // on with the console alone.
  if (ec) return;
  // The VM's name is not known yet; the process id keeps two runs started in the
  // same second apart until the log can be named after the VM.
  std::string pending = std::string(kRunLogDir) + "/.pending-" + runTs_ + "-" +
                        std::to_string(getpid()) + ".log";
  std::ofstream file(pending, std::ios::out | std::ios::trunc);
  if (!file) return;
  file.close();
  runLogPending_ = pending;
  runLogActive_ = pending;
  log_.setRunLogPath(pending);
}

void Conversion::logBanner() {
  log_.info(std::string(kToolName) + " v" + kVersion + " starting");
  log_.info("Source path: " + (options_.path.empty() ? std::string("<none>") : options_.path));
  std::string invocation = std::string("Invocation: ") + kToolName;
  if (!options_.invocation.empty()) invocation += " " + options_.invocation;
  log_.info(invocation);
  log_.info(options_.dryRun ? "Mode: DRY RUN (no changes will be made)" : "Mode: FULL RUN");
}

void Conversion::nameRunLog() {
  if (runLogPending_.empty()) return;
  std::error_code ec;
  if (!std::filesystem::exists(runLogPending_, ec)) return;
  std::string named = std::string(kRunLogDir) + "/" + vmName_ + "-" + runTs_ + ".log";
  std::filesystem::rename(runLogPending_, named, ec);
  if (ec) return;
  log_.setRunLogPath(named);
  runLogActive_ = named;
  runLogPending_.clear();
  log_.trace("Run log: " + named);
}

void Conversion::writeApplicationSummary(int exitCode) {
  OutcomeFacts facts;
  facts.recordName = recordNameFor(vmName_, options_.path);
  facts.exitCode = exitCode;
  facts.dryRun = options_.dryRun;
  if (!stepValidateOk_) {
    facts.failedStage = "validation";
  } else if (!stepIngestOk_) {
    facts.failedStage = "ingest";
  } else if (!stepConvertOk_) {
    facts.failedStage = "disk_convert";
  } else if (!stepBootfixOk_) {
    facts.failedStage = "boot_fix";
  } else if (!stepCreateOk_) {
    facts.failedStage = "vm_create";
  } else {
    facts.failedStage = "post_create";
  }
  facts.sourceType = sourceType_;
  facts.firmware = firmware_;
  facts.diskBus = diskBus_;
  auto elapsed = std::chrono::steady_clock::now() - startTime_;
  facts.durationSeconds =
      std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 1000000000;
  appendApplicationLog("[" + strftimeNow("%Y-%m-%d %H:%M:%S") + "]" +
                       formatOutcomeFields(facts));

  // A run that ended before the VM had a name still leaves a log named after what
  // it was pointed at, never a hidden ".pending-" file.
  std::error_code ec;
  if (!runLogPending_.empty() && std::filesystem::exists(runLogPending_, ec)) {
    std::string named = std::string(kRunLogDir) + "/" + sanitizeRecordName(facts.recordName) +
                        "-" + runTs_ + ".log";
    std::filesystem::rename(runLogPending_, named, ec);
  }
}

}  // namespace orvane
