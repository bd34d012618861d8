// Every real-host test process, and every program it runs, emulates with libguestfs
// unless host-setup found that KVM runs a guest here: on a host whose /dev/kvm exists
// but does not work, the appliance would otherwise never answer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/qemu_boot.h"
#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

class KvmFinding : public ::testing::Environment {
 public:
  void SetUp() override { useTcgUnlessKvmRunsGuests(); }
};

[[maybe_unused]] ::testing::Environment* const kKvmFinding =
    ::testing::AddGlobalTestEnvironment(new KvmFinding);

TEST(HostKvmFinding, AgreesWithTheDeviceAndIsApplied) {
  const std::string finding = readFile(kKvmStateFile);
  if (finding.empty()) {
    GTEST_SKIP() << "no KVM finding: run scripts/host-setup first";
  }
  if (!std::filesystem::exists("/dev/kvm")) {
    EXPECT_EQ("absent\n", finding);
  }
  if (finding != "works\n") {
    const char* settings = std::getenv("LIBGUESTFS_BACKEND_SETTINGS");
    EXPECT_STREQ("force_tcg", settings);
    EXPECT_NE(std::string::npos,
              domainTypeForThisHost("<domain type=\"kvm\">\n  <type>hvm</type>")
                  .find("<domain type='qemu'>"));
  }
}

}  // namespace
}  // namespace orvane::testing
