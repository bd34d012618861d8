#include "boot_fixer/esp_probe.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvane {
namespace {

TEST(ParseVfatDevices, KeepsFatDevicesInOrder) {
  struct Case {
    const char* name;
    std::string listing;
    std::vector<std::string> devices;
  };
  const Case cases[] = {
      {"typical",
       "/dev/sda1: vfat\n/dev/sda2: ext4\n/dev/sdb1: vfat\n",
       {"/dev/sda1", "/dev/sdb1"}},
      {"type case and blanks",
       "  /dev/sda1 :  VFAT \r\n/dev/sda2:Vfat",
       {"/dev/sda1", "/dev/sda2"}},
      {"no fat", "/dev/sda1: ext4\n/dev/sda2: swap\n", {}},
      {"empty", "", {}},
      {"line without colon", "/dev/sda1 vfat\n/dev/sdb1: vfat\n", {"/dev/sdb1"}},
      {"empty device", ": vfat\n   : vfat\n", {}},
      {"type must be exact",
       "/dev/sda1: vfat2\n/dev/sda2: notvfat\n/dev/sda3: vfat x\n",
       {}},
      {"only the first colon splits", "/dev/sda1: vfat: extra\n", {}},
      {"unknown type", "/dev/sda1: unknown\n/dev/sdb1: vfat\n", {"/dev/sdb1"}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parseVfatDevices(c.listing), c.devices) << c.name;
  }
}

TEST(IsTrueAnswer, TrimmedLowerCasedPrefix) {
  struct Case {
    const char* answer;
    bool expected;
  };
  const Case cases[] = {
      {"true\n", true}, {"  TRUE \r\n", true}, {"True", true},
      {"truest", true}, {"false\n", false},    {"", false},
      {"\n", false},    {"not true", false},   {"tru", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(isTrueAnswer(c.answer), c.expected) << '"' << c.answer << '"';
  }
}

using Kind = EspDecision::Kind;

struct DecisionCase {
  const char* name;
  std::string probe;
  Kind kind;
  std::string source;
  std::string note;
  std::string extraGrub;
};

void expectDecisions(const std::vector<DecisionCase>& cases) {
  for (const DecisionCase& c : cases) {
    EspDecision d = decideFromProbe(c.probe);
    EXPECT_EQ(d.kind, c.kind) << c.name;
    EXPECT_EQ(d.source, c.source) << c.name;
    EXPECT_EQ(d.note, c.note) << c.name;
    EXPECT_EQ(d.extraGrub, c.extraGrub) << c.name;
  }
}

const char kPresent[] = "fallback bootloader already present (left as-is)";
const char kFromWindows[] =
    "added \\EFI\\BOOT\\BOOTX64.EFI from the Windows boot manager";
const char kFromShim[] = "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi";
const char kFromGrub[] = "added \\EFI\\BOOT\\BOOTX64.EFI from grubx64.efi";

TEST(DecideFromProbe, Answers) {
  expectDecisions({
      {"fallback present", "true\nfalse\nBOOT\nBOOT/BOOTX64.EFI\nubuntu/shimx64.efi\n",
       Kind::kAlreadyPresent, "", kPresent, ""},
      {"fallback and Windows both present", "true\ntrue\nBOOT/BOOTX64.EFI\n",
       Kind::kAlreadyPresent, "", kPresent, ""},
      {"fallback answer in odd case", " TRUE\r\nfalse\n", Kind::kAlreadyPresent, "",
       kPresent, ""},
      {"Windows boot manager",
       "false\ntrue\nMicrosoft\nMicrosoft/Boot\nMicrosoft/Boot/bootmgfw.efi\n",
       Kind::kCopy, "/EFI/Microsoft/Boot/bootmgfw.efi", kFromWindows, ""},
      {"Windows wins over a shim",
       "false\ntrue\nubuntu/shimx64.efi\nubuntu/grubx64.efi\n", Kind::kCopy,
       "/EFI/Microsoft/Boot/bootmgfw.efi", kFromWindows, ""},
      {"empty probe", "", Kind::kNoSource, "", "", ""},
      {"answers only", "false\nfalse\n", Kind::kNoSource, "", "", ""},
      {"one answer only", "false", Kind::kNoSource, "", "", ""},
  });
}

TEST(DecideFromProbe, LoaderCandidates) {
  expectDecisions({
      {"one shim", "false\nfalse\nubuntu\nubuntu/shimx64.efi\n", Kind::kCopy,
       "/EFI/ubuntu/shimx64.efi", kFromShim, ""},
      {"one grub", "false\nfalse\ndebian\ndebian/grubx64.efi\n", Kind::kCopy,
       "/EFI/debian/grubx64.efi", kFromGrub, ""},
      {"shim preferred over its grub, which comes along",
       "false\nfalse\nubuntu\nubuntu/grubx64.efi\nubuntu/mmx64.efi\nubuntu/shimx64.efi\n",
       Kind::kCopy, "/EFI/ubuntu/shimx64.efi", kFromShim, "/EFI/ubuntu/grubx64.efi"},
      {"grub already under BOOT is never overwritten",
       "false\nfalse\nBOOT\nBOOT/fbx64.efi\nBOOT/grubx64.efi\nubuntu/shimx64.efi\n"
       "ubuntu/grubx64.efi\n",
       Kind::kCopy, "/EFI/ubuntu/shimx64.efi", kFromShim, ""},
      {"BOOT grub listed after the shim's grub",
       "false\nfalse\nubuntu/shimx64.efi\nubuntu/grubx64.efi\nboot/GRUBX64.EFI\n",
       Kind::kCopy, "/EFI/ubuntu/shimx64.efi", kFromShim, ""},
      {"grub in another directory does not come along",
       "false\nfalse\nubuntu/shimx64.efi\ndebian/grubx64.efi\n", Kind::kCopy,
       "/EFI/ubuntu/shimx64.efi", kFromShim, ""},
      {"two grubs", "false\nfalse\nubuntu/grubx64.efi\ndebian/grubx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"two shims", "false\nfalse\nubuntu/shimx64.efi\nfedora/shimx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"two shims and a grub",
       "false\nfalse\nubuntu/shimx64.efi\nubuntu/grubx64.efi\nfedora/shimx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"loader only under BOOT",
       "false\nfalse\nBOOT\nBOOT/grubx64.efi\nBOOT/shimx64.efi\n", Kind::kNoSource, "",
       "", ""},
      {"directly under /EFI is no vendor loader", "false\nfalse\nshimx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"suffix needs the whole name",
       "false\nfalse\nubuntu/myshimx64.efi\nx/grubx64.efi.bak\n", Kind::kNoSource, "", "",
       ""},
      {"BOOTX is not BOOT", "false\nfalse\nBOOTX/grubx64.efi\n", Kind::kCopy,
       "/EFI/BOOTX/grubx64.efi", kFromGrub, ""},
      {"upper case kept in paths and note",
       "false\nfalse\nUBUNTU/SHIMX64.EFI\nUBUNTU/GRUBX64.EFI\n", Kind::kCopy,
       "/EFI/UBUNTU/SHIMX64.EFI", "added \\EFI\\BOOT\\BOOTX64.EFI from SHIMX64.EFI",
       "/EFI/UBUNTU/GRUBX64.EFI"},
      {"blanks around find lines",
       "false\nfalse\n  ubuntu/shimx64.efi \r\n\tubuntu/grubx64.efi\n", Kind::kCopy,
       "/EFI/ubuntu/shimx64.efi", kFromShim, "/EFI/ubuntu/grubx64.efi"},
      {"empty answer lines keep their places", "\n\ndebian/grubx64.efi\n", Kind::kCopy,
       "/EFI/debian/grubx64.efi", kFromGrub, ""},
      {"nested vendor directory",
       "false\nfalse\nvendor/x86/shimx64.efi\nvendor/x86/grubx64.efi\n", Kind::kCopy,
       "/EFI/vendor/x86/shimx64.efi", kFromShim, "/EFI/vendor/x86/grubx64.efi"},
  });
}

// Debian 12's guestfish prints find results as "/ubuntu/shimx64.efi".
TEST(DecideFromProbe, LeadingSlashFindLinesDecideAlike) {
  expectDecisions({
      {"shim and grub",
       "false\nfalse\n/ubuntu\n/ubuntu/grubx64.efi\n/ubuntu/shimx64.efi\n", Kind::kCopy,
       "/EFI/ubuntu/shimx64.efi", kFromShim, "/EFI/ubuntu/grubx64.efi"},
      {"BOOT exclusion holds", "false\nfalse\n/BOOT\n/BOOT/grubx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"BOOT grub still blocks the extra copy",
       "false\nfalse\n/BOOT/grubx64.efi\n/ubuntu/shimx64.efi\n/ubuntu/grubx64.efi\n",
       Kind::kCopy, "/EFI/ubuntu/shimx64.efi", kFromShim, ""},
      {"directly under /EFI still no vendor loader", "false\nfalse\n/shimx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"two grubs", "false\nfalse\n/ubuntu/grubx64.efi\n/debian/grubx64.efi\n",
       Kind::kNoSource, "", "", ""},
      {"mixed forms", "false\nfalse\n/ubuntu/shimx64.efi\nubuntu/grubx64.efi\n",
       Kind::kCopy, "/EFI/ubuntu/shimx64.efi", kFromShim, "/EFI/ubuntu/grubx64.efi"},
  });
}

}  // namespace
}  // namespace orvane
