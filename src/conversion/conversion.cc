#include "conversion/conversion.h"

#include <csignal>
#include <filesystem>
#include <system_error>

#include "boot_fixer/guestfish_boot_fixer.h"
#include "conversion/errors.h"
#include "disk_converter/qemu_img_disk_converter.h"
#include "domain_xml_builder/virt_install_domain_xml_builder.h"
#include "libvirt_backend/virsh_libvirt_backend.h"
#include "text/text.h"

namespace orvane {

volatile std::sig_atomic_t gPendingSignal = 0;

namespace {

// Only records the signal: the main flow acts on it at its next check point, so a
// running external command is never left half-handled by the handler itself.
void handleSignal(int signo) { gPendingSignal = signo; }

}  // namespace

Conversion::Conversion(Options options)
    : Conversion(std::move(options), std::make_unique<VirshLibvirtBackend>(),
                 std::make_unique<VirtInstallDomainXmlBuilder>(),
                 std::make_unique<GuestfishBootFixer>(),
                 std::make_unique<QemuImgDiskConverter>(&gPendingSignal)) {}

Conversion::Conversion(Options options, std::unique_ptr<LibvirtBackend> libvirt,
                       std::unique_ptr<DomainXmlBuilder> xmlBuilder,
                       std::unique_ptr<BootFixer> bootFixer,
                       std::unique_ptr<DiskConverter> diskConverter)
    : options_(std::move(options)),
      libvirt_(std::move(libvirt)),
      xmlBuilder_(std::move(xmlBuilder)),
      bootFixer_(std::move(bootFixer)),
      diskConverter_(std::move(diskConverter)),
      totalSteps_(options_.dryRun ? 3 : 7),
      startTime_(std::chrono::steady_clock::now()) {
  log_.setVerbose(options_.verbose);
}

Conversion::~Conversion() = default;

RunRecorder::~RunRecorder() { conv_.writeApplicationSummary(exitCode_); }

void Conversion::installSignalHandlers() {
  // Without SA_RESTART a blocking call in progress (the read of the answer at the
  // prompt, above all) returns EINTR, so the main flow sees the signal at once.
  struct sigaction action {};
  action.sa_handler = handleSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGHUP, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void Conversion::checkSignal() {
  if (gPendingSignal != 0) throw V2vInterrupted(gPendingSignal);
}

// Nothing to check in this build: it does not expire.
void Conversion::checkExpiration() {}

int Conversion::run() {
  RunRecorder recorder(*this);
  installSignalHandlers();
  int code = kExitFailure;
  try {
    checkExpiration();
    openRunLog();
    logBanner();
    validate();
    checkSignal();
    ingest();
    checkSignal();
    if (options_.dryRun) {
      code = dryRunSummary();
    } else {
      confirmOrAbort();
      claimTargets();
      convertDisks();
      checkSignal();
      bootFix();
      checkSignal();
      defineVm();
      checkSignal();
      refreshPool();
      summarize();
      code = kExitSuccess;
    }
  } catch (const V2vInterrupted& e) {
    // No rollback of finished work: what was made stays, one line says what and
    // where, and the record says why. Only empty or half-written targets go.
    removeClaimedTargets(false);
    reportLeftAfterInterrupt();
    code = 128 + e.signo();
  } catch (const BootNotGuaranteedError& e) {
    if (!e.alreadyReported()) log_.error(e.what());
    code = finish(kExitBootNotGuaranteed);
  } catch (const V2vError& e) {
    if (!e.alreadyReported()) log_.error(e.what());
    code = finish(kExitFailure);
  } catch (const std::exception& e) {
    log_.error(std::string("Unexpected error: ") + e.what());
    code = finish(kExitFailure);
  }
  recorder.setExitCode(code);
  return code;
}

int Conversion::finish(int code) {
  if (code == 0 || options_.dryRun) return code;
  bool rolledBack = vmDefined_;
  if (vmDefined_) {
    log_.warn("Rolling back: undefining VM '" + vmName_ + "'.");
    libvirt_->undefineDomain(vmName_);
  }
  // Only images this run created, and only inside the output directory: a path
  // anywhere else is never deleted, whatever the list says.
  if (!outputDir_.empty()) {
    const std::string prefix = outputDir_ + "/";
    for (const std::string& path : createdQcows_) {
      if (!path.starts_with(prefix)) continue;
      std::error_code ec;
      auto status = std::filesystem::symlink_status(path, ec);
      if (status.type() == std::filesystem::file_type::not_found) continue;
      log_.warn("Rolling back: deleting " + path);
      std::filesystem::remove(path, ec);
      rolledBack = true;
    }
  }
  if (removeClaimedTargets(true)) rolledBack = true;
  if (rolledBack) log_.info("Partial conversion rolled back; no Orvane VM left behind.");
  return code;
}

bool Conversion::removeClaimedTargets(bool loud) {
  const std::string prefix = outputDir_ + "/";
  bool removed = false;
  for (const std::string& path : claimedQcows_) {
    if (outputDir_.empty() || !path.starts_with(prefix)) continue;
    if (loud) log_.warn("Rolling back: deleting " + path);
    std::error_code ec;
    removed = std::filesystem::remove(path, ec) || removed;
  }
  claimedQcows_.clear();
  return removed;
}

void Conversion::reportLeftAfterInterrupt() {
  if (createdQcows_.empty() && !vmDefined_) return;
  std::string names;
  for (const std::string& path : createdQcows_) {
    names += (names.empty() ? "" : ", ") + std::filesystem::path(path).filename().string();
  }
  if (vmDefined_) {
    log_.warn("Interrupted: VM '" + vmName_ + "' is defined, with its image(s) " + names +
              " in " + outputDir_ + "; check it, or undefine it and remove them.");
  } else {
    log_.warn("Interrupted: kept the finished image(s) " + names + " in " + outputDir_ +
              " (no VM defined); convert the rest by hand, or remove them before a re-run.");
  }
}

void Conversion::noteBlocker(const std::string& message, int code) {
  if (options_.dryRun) {
    dryIssues_.push_back(message);
    return;
  }
  for (std::string_view line : split(message, '\n')) log_.error(std::string(line));
  if (code == kExitBootNotGuaranteed) throw BootNotGuaranteedError(message, "", true);
  throw V2vError(message, "", true);
}

}  // namespace orvane
