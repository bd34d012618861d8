#pragma once

#include <string>

namespace orvane {

/// What the outcome record of one run is made of; the pure part of the record, so
/// that its wording can be checked without running a conversion.
struct OutcomeFacts {
  std::string recordName;
  int exitCode = 1;
  bool dryRun = false;
  /// The first step that did not complete: "validation", "ingest", "disk_convert",
  /// "boot_fix", "vm_create", or "post_create" when all did.
  std::string failedStage;
  std::string sourceType;
  std::string firmware;
  std::string diskBus;
  long long durationSeconds = 0;
};

/// The record line after its "[time]" field: " vm=... result=... duration=Ns ...".
std::string formatOutcomeFields(const OutcomeFacts& facts);
/// The reason shown for an interrupted run (exit code 129 or more).
std::string interruptReason(int exitCode);
/// Keeps ASCII letters, digits and - _ . + ; every other byte becomes "_".
std::string sanitizeRecordName(const std::string& name);
/// The record name: the VM name, else the last element of the source path, else
/// "<unknown>".
std::string recordNameFor(const std::string& vmName, const std::string& sourcePath);

}  // namespace orvane
