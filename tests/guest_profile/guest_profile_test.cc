#include "guest_profile/guest_profile.h"

#include "support/tables.h"

namespace orvane::testing {
namespace {

const std::string kData = ORVANE_SOURCE_DIR "/tests/guest_profile/data";

TEST(GuestProfile, ClassifiesGuestsAndNames) {
  for (const std::vector<std::string>& row : readRows(kData + "/guest_os.tsv")) {
    EXPECT_EQ(joined({osFamily(row[0]), isLegacyWindows(row[0]) ? "legacy" : "-",
                      mapWindowsOsinfo(row[0])}),
              joined({row.at(1), row.at(2), row.at(3)}))
        << row[0];
  }
  for (const std::vector<std::string>& row : readRows(kData + "/domain_names.tsv")) {
    EXPECT_EQ(isValidDomainName(row.at(1)) ? "valid" : "invalid", row[0]) << row[1];
  }
}

}  // namespace
}  // namespace orvane::testing
