#include "vmx/vmdk_descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "support/temp_dir.h"
#include "vmx/vmx_reader.h"

namespace orvane {
namespace {

using namespace std::string_literals;
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

// Before it was checked, the parent scan opened a FIFO named like a disk and
// waited for a writer forever.
TEST(VmdkDescriptor, FifoIsNotOpened) {
  testing::TempDir dir("orvane-disks-vmdk");
  const std::string fifo = dir.file("a.vmdk");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::future<bool> scan =
      std::async(std::launch::async, [&] { return vmdkHasParent(fifo); });
  if (scan.wait_for(std::chrono::seconds(5)) == std::future_status::timeout) {
    // Release the blocked open (a writer came and went, so the read then sees the
    // end of the file) so that the test can end and report.
    const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (writer >= 0) close(writer);
    scan.wait();
    FAIL() << "the parent scan blocked on a FIFO";
  }
  EXPECT_FALSE(scan.get());
  EXPECT_LT(openRegularFile(fifo), 0);
  EXPECT_LT(openRegularFile(dir.path()), 0);
  EXPECT_LT(openRegularFile("/dev/null"), 0);
}

struct ExtentCase {
  const char* name;
  std::string_view text;
  const char* createType;
  std::vector<std::string> extents;
};

TEST(VmdkDescriptor, ExtentsAndCreateType) {
  const ExtentCase cases[] = {
      {"flat, as qemu-img writes it",
       "# Disk DescriptorFile\nversion=1\nCID=52f6f1a5\nparentCID=ffffffff\n"
       "createType=\"monolithicFlat\"\n\n# Extent description\n"
       "RW 6291456 FLAT \"source disk-flat.vmdk\" 0\n\n# The Disk Data Base\n"
       "ddb.adapterType = \"ide\"\n",
       "monolithicFlat",
       {"source disk-flat.vmdk"}},
      {"split sparse, every access mode, a ZERO extent without a file",
       "createType=\"twoGbMaxExtentSparse\"\nRW 4192256 SPARSE \"d-s001.vmdk\"\n"
       "RDONLY 4192256 SPARSE \"d-s002.vmdk\"\nnoaccess 1 FLAT \"d-s003.vmdk\" 0\n"
       "RW 2048 ZERO\n",
       "twoGbMaxExtentSparse",
       {"d-s001.vmdk", "d-s002.vmdk", "d-s003.vmdk"}},
      {"indented, CRLF, createType in another case and unquoted",
       "  CREATETYPE = vmfs\r\n\tRW 2048 VMFS \"d-flat.vmdk\"\r\n",
       "vmfs",
       {"d-flat.vmdk"}},
      // qemu-img opens a name without its closing quote up to the end of the line.
      {"unclosed quote runs to the line end",
       "RW 2048 VMFS \"/dev/sda\r\n",
       "",
       {"/dev/sda"}},
      {"the first createType counts",
       "createType=\"fullDevice\"\ncreateType=\"vmfs\"\n",
       "fullDevice",
       {}},
      {"comments, other keys and empty names are no extents",
       "# RW 2048 FLAT \"c.vmdk\" 0\nddb.uuid = \"60 00\"\nRW 2048 FLAT \"\" 0\n"
       "RWX 1 FLAT \"x.vmdk\" 0\n",
       "",
       {}},
      {"nothing after a NUL byte counts",
       "RW 1 FLAT \"a.vmdk\" 0\n\0RW 1 FLAT \"b.vmdk\" 0\ncreateType=\"vmfs\"\n"sv,
       "",
       {"a.vmdk"}},
  };
  for (const ExtentCase& c : cases) {
    const DescriptorInfo info = parseDescriptor(c.text);
    EXPECT_EQ(info.createType, c.createType) << c.name;
    EXPECT_EQ(info.extents, c.extents) << c.name;
  }
  for (const char* rdm : {"fullDevice", "partitionedDevice", "vmfsRawDeviceMap",
                          "VMFSPASSTHROUGHRAWDEVICEMAP"}) {
    EXPECT_TRUE(isRawDeviceCreateType(rdm)) << rdm;
  }
  for (const char* disk : {"monolithicFlat", "vmfs", "streamOptimized", ""}) {
    EXPECT_FALSE(isRawDeviceCreateType(disk)) << disk;
  }
}

TEST(VmdkDescriptor, SparseHeaderLocatesTheEmbeddedDescriptor) {
  std::string header = "KDMV\x01\0\0\0\x03\0\0\0"s;
  const auto put64 = [&header](std::uint64_t v) {
    for (int i = 0; i < 8; ++i)
      header.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
  };
  put64(0x0000000100000000ULL);  // capacity
  put64(128);                    // grain size
  put64(1);                      // descriptor offset
  put64(20);                     // descriptor size
  const std::optional<SparseHeader> parsed = sparseHeader(header);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->capacity, 0x0000000100000000ULL);
  EXPECT_EQ(parsed->descriptorOffset, 1u);
  EXPECT_EQ(parsed->descriptorSize, 20u);
  EXPECT_FALSE(sparseHeader(header.substr(0, 43)));
  EXPECT_FALSE(sparseHeader("# Disk DescriptorFile\n" + header));
  EXPECT_TRUE(isLegacySparse("COWD\x01"));
}

}  // namespace
}  // namespace orvane
