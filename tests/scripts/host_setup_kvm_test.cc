// scripts/host-setup --kvm-only with a fake qemu first on PATH: each kind of host is
// told apart, said in one line and recorded, and a guest that hangs is given up on
// within the bound, even when it ignores SIGTERM.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "process/command_runner.h"
#include "support/fake_tools.h"
#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

TEST(HostSetupKvm, TellsTheKindOfHostApartWithinTheBound) {
  struct Case {
    const char* name;
    bool device;
    std::string qemu;  // body of the fake qemu-system-x86_64; "" for none
    std::string finding;
    std::string line;  // after "host-setup: KVM: " + device
  };
  const std::string tcg =
      "; guests and the libguestfs appliance run under TCG emulation\n";
  const Case cases[] = {
      {"no device", false, "", "absent", "no DEV" + tcg},
      {"a guest that runs to its end", true,
       "echo 'SeaBIOS (version 1.16.2-debian-1.16.2-1)'\necho 'No bootable device.'",
       "works", "DEV works\n"},
      {"a device qemu cannot use", true,
       "echo 'qemu-system-x86_64: -accel kvm: failed to initialize kvm: Permission "
       "denied' "
       ">&2\nexit 1",
       "no-guest",
       "DEV present but runs no guest (qemu failed: qemu-system-x86_64: -accel kvm: "
       "failed "
       "to initialize kvm: Permission denied)" +
           tcg},
      {"a guest that never gets past its first lines", true,
       "trap '' TERM\necho $$ > \"$FAKE_PID\"\necho 'SeaBIOS (version'\nexec sleep 600",
       "no-guest",
       "DEV present but runs no guest (a test guest did not finish within 2 s)" + tcg},
      {"a guest that ends without a word", true, "exit 0", "no-guest",
       "DEV present but runs no guest (a test guest ended without its firmware's "
       "output)" +
           tcg},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeTools tools;
    TempDir dir("orvane-kvm");
    const std::string device = dir.file("kvm");
    if (c.device) writeFile(device, "");
    if (!c.qemu.empty()) tools.addRecording("qemu-system-x86_64", c.qemu);
    setenv("ORVANE_KVM_DEVICE", device.c_str(), 1);
    setenv("ORVANE_KVM_STATE", dir.file("state/kvm").c_str(), 1);
    setenv("ORVANE_KVM_SECONDS", "2", 1);
    setenv("FAKE_PID", dir.file("qemu.pid").c_str(), 1);

    const auto start = std::chrono::steady_clock::now();
    CommandResult r = runCommand(
        {"bash", std::string(ORVANE_SOURCE_DIR) + "/scripts/host-setup", "--kvm-only"});
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(0, r.exitCode) << r.stderrText;
    std::string line = c.line;
    line.replace(line.find("DEV"), 3, device);
    EXPECT_EQ("host-setup: KVM: " + line, r.stdoutText);
    EXPECT_EQ(c.finding + "\n", readFile(dir.file("state/kvm")));
    // The bound, the grace before SIGKILL, and room for a loaded machine.
    EXPECT_LT(seconds, 2 + 5 + 5);
    if (c.device && !c.qemu.empty()) {
      ASSERT_EQ(1u, tools.calls("qemu-system-x86_64").size());
      EXPECT_EQ("-accel", tools.calls("qemu-system-x86_64")[0].at(0));
      EXPECT_EQ("kvm", tools.calls("qemu-system-x86_64")[0].at(1));
    }
    // Killed is enough: a zombie handed to init may wait a moment for its reaping.
    const std::string pid = readFile(dir.file("qemu.pid"));
    if (!pid.empty()) {
      const std::string stat =
          readFile("/proc/" + pid.substr(0, pid.size() - 1) + "/stat");
      const std::size_t state = stat.rfind(") ");
      EXPECT_TRUE(stat.empty() || (state != std::string::npos && stat[state + 2] == 'Z'))
          << "the hanging qemu outlived the test boot: " << stat;
    }
    unsetenv("ORVANE_KVM_DEVICE");
    unsetenv("ORVANE_KVM_STATE");
    unsetenv("ORVANE_KVM_SECONDS");
  }
}

}  // namespace
}  // namespace orvane::testing
