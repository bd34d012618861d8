#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "support/temp_dir.h"
#include "vmx/vmx_reader.h"

namespace orvane {
namespace {

using namespace std::string_view_literals;

struct DescriptorCase {
  const char* name;
  std::string_view text;
  bool hasParent;
};

TEST(VmdkDescriptor, ParentDetection) {
  const DescriptorCase cases[] = {
      {"base disk",
       "# Disk DescriptorFile\nversion=1\nCID=5b6c7d8e\nparentCID=ffffffff\n"
       "createType=\"monolithicSparse\"\nRW 41943040 SPARSE \"a-s001.vmdk\"\n",
       false},
      {"no parent CID, named hint",
       "parentCID=ffffffff\nparentFileNameHint=\"base.vmdk\"\n", true},
      {"parent CID, no hint", "CID=9a8b7c6d\nparentCID=1a2b3c4d\n", true},
      {"no parent CID, no hint", "CID=9a8b7c6d\nparentCID=ffffffff\n", false},
      {"no parent CID, empty hint", "parentCID=ffffffff\nparentFileNameHint=\"\"\n",
       false},
      {"empty hint, then a named one",
       "parentFileNameHint=\"\"\nparentFileNameHint=\"base.vmdk\"\n", true},
      {"hint on an absolute path",
       "parentFileNameHint=\"/vmfs/volumes/ds1/base/base.vmdk\"\n", true},
      {"unquoted hint", "parentFileNameHint=base.vmdk\n", false},
      {"hint with one quote", "parentFileNameHint=\"base.vmdk\n", false},
      {"hint key in any case, indented", "  PARENTFILENAMEHINT = \"b.vmdk\"\n", true},
      {"no-parent marker in capitals", "parentCID=FFFFFFFF\n", false},
      {"no-parent marker quoted", "parentCID=\"ffffffff\"\n", false},
      {"CID key in any case, blanks around =", "\tParentCid = 0000000a\n", true},
      {"CID line without =", "parentCID 1a2b3c4d\n", false},
      {"CID line with no hex digit", "parentCID=\n", false},
      {"own CID only", "CID=1a2b3c4d\n", false},
      {"commented-out parent", "#parentCID=1a2b3c4d\n# parentFileNameHint=\"b.vmdk\"\n",
       false},
      {"CRLF line ends, no parent", "parentCID=ffffffff\r\nparentFileNameHint=\"\"\r\n",
       false},
      {"CRLF line ends, parent", "parentCID=1a2b3c4d\r\n", true},
      {"no newline at the end", "parentCID=1a2b3c4d", true},
      {"empty text", "", false},
      // A monolithic sparse disk: binary header, then the descriptor inside.
      {"embedded in a sparse extent",
       "KDMV\x01\0\0\0\x03\0\0\0\0\0\0\0\n# Disk DescriptorFile\nparentCID=0badcafe\n"sv,
       true},
  };
  for (const DescriptorCase& c : cases) {
    EXPECT_EQ(descriptorHasParent(c.text), c.hasParent) << c.name;
  }
}

/// Filler lines up to `size` bytes, then `tail`.
std::string paddedTo(std::size_t size, const std::string& tail) {
  std::string text = "# Disk DescriptorFile\nparentCID=ffffffff\n";
  while (text.size() < size) text += "ddb.comment = \"padding padding padding\"\n";
  text.resize(size, '#');
  if (!text.empty()) text.back() = '\n';
  return text + tail;
}

TEST(VmdkDescriptor, OnlyTheFirst64KiBCount) {
  const std::string parentLine = "parentCID=1a2b3c4d\n";
  EXPECT_TRUE(descriptorHasParent(
      paddedTo(kDescriptorScanBytes - parentLine.size(), parentLine)));
  EXPECT_FALSE(descriptorHasParent(paddedTo(kDescriptorScanBytes, parentLine)));
  // A line cut at the limit counts for the part that is inside it.
  EXPECT_TRUE(
      descriptorHasParent(paddedTo(kDescriptorScanBytes - 12, "parentCID=1a2b3c4d\n")));
  EXPECT_FALSE(
      descriptorHasParent(paddedTo(kDescriptorScanBytes - 10, "parentCID=1a2b3c4d\n")));
}

TEST(VmdkDescriptor, FileReadStopsAt64KiB) {
  testing::TempDir dir("orvane-vmdk");
  // A multi-megabyte extent whose parent line lies far beyond the descriptor area.
  const std::string hint = "parentFileNameHint=\"base.vmdk\"\n";
  testing::writeFile(dir.file("far.vmdk"), paddedTo(4 << 20, hint));
  testing::writeFile(
      dir.file("near.vmdk"),
      paddedTo(kDescriptorScanBytes - hint.size(), hint) + std::string(4 << 20, '\0'));
  EXPECT_FALSE(vmdkHasParent(dir.file("far.vmdk")));
  EXPECT_TRUE(vmdkHasParent(dir.file("near.vmdk")));
}

TEST(VmdkDescriptor, UnreadableFileHasNoParent) {
  testing::TempDir dir("orvane-vmdk");
  EXPECT_FALSE(vmdkHasParent(dir.file("absent.vmdk")));
  EXPECT_FALSE(vmdkHasParent(dir.path()));
  EXPECT_FALSE(vmdkHasParent(""));
}

}  // namespace
}  // namespace orvane
