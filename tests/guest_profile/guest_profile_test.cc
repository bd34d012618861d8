#include "guest_profile/guest_profile.h"

#include <gtest/gtest.h>

#include "vmx/test_tables.h"

namespace orvane::testing {
namespace {

const std::string kData = std::string(ORVANE_SOURCE_DIR) + "/tests/guest_profile/data";

TEST(GuestProfile, ClassifiesGuestIdentifiers) {
  for (const std::vector<std::string>& row : readRows(kData + "/guest_os.tsv")) {
    ASSERT_EQ(row.size(), 4u);
    EXPECT_EQ((std::vector<std::string>{osFamily(row[0]),
                                        isLegacyWindows(row[0]) ? "legacy" : "-",
                                        mapWindowsOsinfo(row[0])}),
              (std::vector<std::string>{row[1], row[2], row[3]}))
        << row[0];
  }
}

TEST(GuestProfile, DomainNames) {
  for (const std::vector<std::string>& row : readRows(kData + "/domain_names.tsv")) {
    ASSERT_EQ(row.size(), 2u);
    EXPECT_EQ(isValidDomainName(row[1]) ? "valid" : "invalid", row[0]) << row[1];
  }
}

}  // namespace
}  // namespace orvane::testing
