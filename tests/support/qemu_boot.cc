#include "support/qemu_boot.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "support/temp_dir.h"

extern char** environ;

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kOvmfCode = "/usr/share/OVMF/OVMF_CODE_4M.fd";
constexpr const char* kOvmfVars = "/usr/share/OVMF/OVMF_VARS_4M.fd";

/// Texts after which no boot option is left to try. OVMF starts its built-in shell
/// only when every disk option has failed, and prints the last one when it has no
/// shell; a GRUB rescue prompt means GRUB ran but found none of its files.
constexpr std::string_view kGaveUpTexts[] = {
    "\"EFI Internal Shell\"",
    "Shell> ",
    "No bootable option or device was found",
    "grub rescue>",
    "No bootable device",
    "Kernel panic - not syncing",
};

/// The tag that starts at or after `from` with `<name` followed by a blank, '>' or
/// '/', whole; "" when there is none. `from` is moved past it.
std::string nextTag(const std::string& xml, const std::string& name, std::size_t& from) {
  for (std::size_t at = xml.find("<" + name, from); at != std::string::npos;
       at = xml.find("<" + name, at + 1)) {
    const std::size_t after = at + 1 + name.size();
    if (after < xml.size() && std::string_view(" \t\n/>").find(xml[after]) != std::string::npos) {
      const std::size_t end = xml.find('>', after);
      if (end == std::string::npos) break;
      from = end + 1;
      return xml.substr(at, end + 1 - at);
    }
  }
  from = std::string::npos;
  return "";
}

/// The value of attribute `name` in one tag, quoted either way as libvirt
/// (single) and virt-install (double) write them; "" when absent.
std::string attribute(const std::string& tag, const std::string& name) {
  for (std::size_t at = tag.find(name + "="); at != std::string::npos;
       at = tag.find(name + "=", at + 1)) {
    const std::size_t quote = at + name.size() + 1;
    if (at == 0 || !std::isspace(static_cast<unsigned char>(tag[at - 1]))) continue;
    if (quote >= tag.size() || (tag[quote] != '\'' && tag[quote] != '"')) continue;
    const std::size_t end = tag.find(tag[quote], quote + 1);
    if (end == std::string::npos) return "";
    return tag.substr(quote + 1, end - quote - 1);
  }
  return "";
}

bool isQ35(const std::string& machine) { return machine.find("q35") != std::string::npos; }

/// waitpid that survives signals; returns the status, or -1 when nothing was collected.
int reap(pid_t pid, bool block) {
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(pid, &status, block ? 0 : WNOHANG);
  } while (r == -1 && errno == EINTR);
  return r == pid ? status : -1;
}

/// Ends the qemu run: `timeout` passes SIGTERM on to qemu, which exits at once.
/// The process group is killed as a last resort so no emulator outlives the test.
void stop(pid_t pid) {
  ::kill(pid, SIGTERM);
  const auto deadline = Clock::now() + std::chrono::seconds(15);
  while (Clock::now() < deadline) {
    if (reap(pid, false) != -1) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ::kill(-pid, SIGKILL);
  reap(pid, true);
}

std::string describeStatus(int status) {
  if (WIFEXITED(status)) return "qemu exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "qemu was killed by signal " + std::to_string(WTERMSIG(status));
  return "qemu ended";
}

}  // namespace

bool kvmRunsGuests() { return readFile(kKvmStateFile) == "works\n"; }

std::string domainTypeForThisHost(const std::string& domainXml) {
  if (kvmRunsGuests()) return domainXml;
  std::string xml = domainXml;
  const std::size_t tagEnd = xml.find('>', xml.find("<domain"));
  for (const char* kvm : {"type=\"kvm\"", "type='kvm'"}) {
    const std::size_t at = xml.find(kvm);
    if (at != std::string::npos && at < tagEnd) xml.replace(at, 10, "type='qemu'");
  }
  return xml;
}

void useTcgUnlessKvmRunsGuests() {
  if (!kvmRunsGuests()) setenv("LIBGUESTFS_BACKEND_SETTINGS", "force_tcg", 1);
}

BootRequest bootRequestFromDomainXml(const std::string& domainXml) {
  BootRequest request;
  std::size_t pos = 0;
  request.machine = attribute(nextTag(domainXml, "type", pos), "machine");
  pos = 0;
  const bool efiAttribute = attribute(nextTag(domainXml, "os", pos), "firmware") == "efi";
  pos = 0;
  const bool loader = !nextTag(domainXml, "loader", pos).empty();
  request.firmware = efiAttribute || loader ? GuestFirmware::kUefi : GuestFirmware::kBios;
  // The first hard disk decides; CD-ROMs may sit on another bus.
  pos = 0;
  while (pos != std::string::npos) {
    const std::string disk = nextTag(domainXml, "disk", pos);
    if (disk.empty() || attribute(disk, "device") != "disk") continue;
    const std::string bus = attribute(nextTag(domainXml, "target", pos), "bus");
    request.bus = bus == "ide" ? GuestDiskBus::kIde : GuestDiskBus::kSata;
    break;
  }
  return request;
}

std::vector<std::string> qemuBootArgs(const BootRequest& request, const std::string& serialLog,
                                      const std::string& varsFile) {
  const bool uefi = request.firmware == GuestFirmware::kUefi;
  const std::string machine = !request.machine.empty() ? request.machine : (uefi ? "q35" : "pc");
  // -nodefaults: no network card, so firmware never waits on a network boot, and no
  // display; -no-reboot and a zero reboot timeout turn every "try again" into an exit.
  std::vector<std::string> args = {
      "-machine", machine, "-accel", "tcg", "-m", "512", "-nodefaults", "-display", "none",
      "-no-reboot", "-boot", "reboot-timeout=0", "-serial", "file:" + serialLog};
  if (uefi) {
    args.insert(args.end(),
                {"-drive", std::string("if=pflash,format=raw,readonly=on,file=") + kOvmfCode,
                 "-drive", "if=pflash,format=raw,file=" + varsFile});
  }
  args.insert(args.end(), {"-drive", "file=" + request.image + ",format=" + request.format +
                                         ",if=none,id=disk0,snapshot=on"});
  if (request.bus == GuestDiskBus::kIde) {
    args.insert(args.end(), {"-device", "ide-hd,drive=disk0,bus=ide.0"});
  } else if (isQ35(machine)) {
    // q35 has its ICH9 AHCI controller built in; its ports are named ide.N.
    args.insert(args.end(), {"-device", "ide-hd,drive=disk0,bus=ide.0"});
  } else {
    args.insert(args.end(),
                {"-device", "ahci,id=sata0", "-device", "ide-hd,drive=disk0,bus=sata0.0"});
  }
  return args;
}

SerialVerdict classifySerial(std::string_view serial, std::string* why) {
  if (serial.find(kBootMarker) != std::string_view::npos) {
    if (why) *why = std::string(kBootMarker);
    return SerialVerdict::kBooted;
  }
  for (std::string_view text : kGaveUpTexts) {
    if (serial.find(text) != std::string_view::npos) {
      if (why) *why = std::string(text);
      return SerialVerdict::kGaveUp;
    }
  }
  return SerialVerdict::kRunning;
}

std::string BootResult::describe() const {
  static const char* kNames[] = {"booted", "firmware gave up", "qemu exited", "timed out",
                                 "not started"};
  std::string tail = serialLog.size() > 2000 ? serialLog.substr(serialLog.size() - 2000)
                                             : serialLog;
  return std::string(kNames[static_cast<int>(outcome)]) + " after " +
         std::to_string(static_cast<int>(seconds)) + " s (" + reason + ")\n--- serial tail ---\n" +
         tail + "\n--- qemu output ---\n" + qemuOutput;
}

BootResult bootDisk(const BootRequest& request) {
  BootResult result;
  TempDir work("orvane-boot");
  const std::string serial = work.file("serial.log");
  const std::string vars = work.file("OVMF_VARS.fd");
  const std::string qemuOut = work.file("qemu.out");
  writeFile(serial, "");
  if (request.firmware == GuestFirmware::kUefi) {
    // A fresh copy of the empty store: no boot entry from an earlier run can help.
    std::error_code ec;
    fs::copy_file(kOvmfVars, vars, fs::copy_options::overwrite_existing, ec);
    if (ec) {
      result.reason = std::string("cannot copy ") + kOvmfVars + ": " + ec.message();
      return result;
    }
  }

  // `timeout` is the safety net: should this process die, qemu still ends.
  std::vector<std::string> argv = {"timeout", "--kill-after=10",
                                   std::to_string(request.timeoutSeconds + 60),
                                   "qemu-system-x86_64"};
  for (auto& a : qemuBootArgs(request, serial, vars)) argv.push_back(std::move(a));
  std::vector<char*> cargv;
  for (auto& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, qemuOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  pid_t pid = 0;
  const int spawnError = posix_spawnp(&pid, "timeout", &actions, &attr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (spawnError != 0) {
    result.reason = std::string("cannot start qemu: ") + std::strerror(spawnError);
    return result;
  }

  const auto start = Clock::now();
  const auto deadline = start + std::chrono::seconds(request.timeoutSeconds);
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const int status = reap(pid, false);
    // Read after reaping, so what qemu wrote just before it exited is seen.
    result.serialLog = readFile(serial);
    const SerialVerdict verdict = classifySerial(result.serialLog, &result.reason);
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (verdict != SerialVerdict::kRunning) {
      result.outcome =
          verdict == SerialVerdict::kBooted ? BootOutcome::kBooted : BootOutcome::kGaveUp;
      if (status == -1) stop(pid);
      break;
    }
    if (status != -1) {
      result.outcome = BootOutcome::kExited;
      result.reason = describeStatus(status);
      break;
    }
    if (Clock::now() >= deadline) {
      result.outcome = BootOutcome::kTimedOut;
      result.reason = "no verdict within " + std::to_string(request.timeoutSeconds) + " s";
      stop(pid);
      break;
    }
  }
  result.qemuOutput = readFile(qemuOut);
  return result;
}

}  // namespace orvane::testing
