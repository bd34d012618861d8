#include "conversion/outcome_record.h"

#include <filesystem>

#include "cli/usage.h"
#include "text/text.h"

namespace orvane {

std::string interruptReason(int exitCode) {
  switch (exitCode) {
    case 129:
      return "SIGHUP (terminal disconnect)";
    case 130:
      return "SIGINT (Ctrl-C)";
    case 143:
      return "SIGTERM";
    default:
      return "signal " + std::to_string(exitCode - 128);
  }
}

std::string formatOutcomeFields(const OutcomeFacts& facts) {
  std::string result;
  std::string reason;
  bool withStage = false;
  if (facts.exitCode >= 129) {
    result = "interrupted";
    reason = interruptReason(facts.exitCode);
  } else if (facts.dryRun) {
    result = facts.exitCode == 0 ? "dry_run" : "dry_run_failed";
  } else if (facts.exitCode == 0) {
    result = "success";
  } else if (facts.exitCode == 2) {
    result = "boot_not_guaranteed";
  } else {
    result = "failure";
    withStage = true;
  }

  std::string line = " vm=" + facts.recordName + " result=" + result;
  if (withStage) line += " stage=" + facts.failedStage;
  if (!facts.sourceType.empty()) line += " source=" + facts.sourceType;
  if (!facts.firmware.empty()) line += " firmware=" + facts.firmware;
  if (!facts.diskBus.empty()) {
    if (facts.diskBus == "virtio") {
      line += " hw=virtio";
    } else if (facts.diskBus == "ide") {
      line += " hw=ide+e1000";
    } else {
      line += " hw=sata+e1000";
    }
  }
  line += " duration=" + std::to_string(facts.durationSeconds) + "s version=" + kVersion;
  if (!reason.empty()) line += " reason=\"" + reason + "\"";
  return line;
}

std::string sanitizeRecordName(const std::string& name) {
  std::string out = name;
  for (char& c : out) {
    if (!isVmNameChar(c)) c = '_';
  }
  return out;
}

std::string recordNameFor(const std::string& vmName, const std::string& sourcePath) {
  if (!vmName.empty()) return vmName;
  if (!sourcePath.empty()) return std::filesystem::path(sourcePath).filename().string();
  return "<unknown>";
}

}  // namespace orvane
