#include "guest_profile/guest_profile.h"

#include <gtest/gtest.h>

#include <string>

namespace orvane {
namespace {

struct GuestCase {
  const char* guestOs;
  const char* family;
  bool legacy;
  const char* osinfo;
};

// Real VMware identifiers first, then the rows' tie-breaks and near misses.
TEST(GuestProfile, ClassifiesGuestIdentifiers) {
  const GuestCase cases[] = {
      {"windows11-64", "windows", false, "win11"},
      {"windows2022srvnext-64", "windows", false, "win2k22"},
      {"windows2019srvnext-64", "windows", false, "win2k22"},
      {"windows2019srv-64", "windows", false, "win2k19"},
      {"windows9srv-64", "windows", false, "win2k16"},
      {"windows8srv-64", "windows", false, "win2k12r2"},
      {"windows7srv-64", "windows", true, "win2k8r2"},
      {"longhorn-64", "linux", true, "win2k8r2"},
      {"winlonghorn", "windows", true, "win2k8r2"},
      {"windows9-64", "windows", false, "win10"},
      {"windows9", "windows", false, "win10"},
      {"windows9_64", "windows", false, "win10"},
      {"windows8-64", "windows", false, "win8"},
      {"windows8", "windows", false, "win8"},
      {"windows7-64", "windows", true, "win7"},
      {"winvista-64", "windows", true, "winvista"},
      {"winnetstandard", "windows", true, "win2k3"},
      {"winnetenterprise-64", "windows", true, "win2k3"},
      {"win2000serv", "windows", true, "win2k"},
      {"winntguest", "windows", true, "winnt4"},
      {"winnt", "windows", false, "win10"},
      {"winxppro", "windows", true, "winxp"},
      {"winxphome", "windows", true, "winxp"},
      {"windowsxp-64", "windows", true, "winxp"},
      // "2008" without a legacy marker gets the old name without being legacy.
      {"windows2008-64", "windows", false, "win2k8r2"},
      {"win-2012", "windows", false, "win2k12r2"},
      {"windows2016srv", "windows", false, "win2k16"},
      {"windows2025srv-64", "windows", false, "win2k22"},
      // "xp" alone is not a legacy marker but still maps to XP.
      {"wxp", "linux", false, "winxp"},
      {"windows11srv-2022", "windows", false, "win11"},
      {"ubuntu-64", "linux", false, "win10"},
      {"other", "linux", false, "win10"},
      {"wi", "linux", false, "win10"},
      {"", "linux", false, "win10"},
      // Matching is on the text as given: the caller lower-cases.
      {"Windows7-64", "linux", false, "win10"},
      {"WINXPPRO", "linux", false, "win10"},
  };
  for (const GuestCase& c : cases) {
    EXPECT_EQ(osFamily(c.guestOs), c.family) << c.guestOs;
    EXPECT_EQ(isLegacyWindows(c.guestOs), c.legacy) << c.guestOs;
    EXPECT_EQ(mapWindowsOsinfo(c.guestOs), c.osinfo) << c.guestOs;
  }
}

TEST(GuestProfile, DomainNames) {
  const struct {
    std::string name;
    bool valid;
  } cases[] = {
      {"web01-migrated", true},
      {"Web_01.test+2", true},
      {".hidden", true},
      {std::string(300, 'a'), true},
      // virt-install takes a leading "-" for an option; virsh looks a number up as
      // a domain ID (strtol, so "+1" and "007" too) and any 36 characters holding
      // 32 hex digits and 4 "-" as a UUID.
      {"-x", false},
      {"-", false},
      {"1", false},
      {"007", false},
      {"+1", false},
      {"1+", true},
      {"web-01", true},
      {"2024", false},
      {"2024.01", true},
      {"6695eb01-f6a4-8304-79aa-97f2502e193f", false},
      {"6695EB01-F6A4-8304-79AA-97F2502E193F", false},
      {"6695-eb01-f6a4-8304-79aa97f2502e193f", false},
      {"6695eb01-f6a4-8304-79aa-97f2502e193", true},
      {"6695eb01-f6a4-8304-79aa-97f2502e193g", true},
      {"6695eb01f6a4830479aa97f2502e193f", true},
      {"", false},
      {"web 01", false},
      {"a/b", false},
      {"a,b", false},
      {"a:b", false},
      {"a@b", false},
      {"tab\there", false},
      {"trailing\n", false},
      {"caf\xc3\xa9", false},
      {std::string("nul\0byte", 8), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isValidDomainName(c.name), c.valid) << c.name;
  }
}

}  // namespace
}  // namespace orvane
