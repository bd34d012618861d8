// The files behind each disk, on folders each case of data/disk_files.txt builds:
// what VMware writes passes, and every way a descriptor can reach outside its folder,
// or a disk file can be missing or special, is refused with a message naming the file
// and the key. Then what is read from descriptor texts, and how much of a file.
#include "vmx/disk_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "vmx/test_tables.h"
#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace orvane::testing {
namespace {

const std::string kData = std::string(ORVANE_SOURCE_DIR) + "/tests/vmx/data";

/// The first sector of a sparse extent whose descriptor is in the next 20.
std::string sparseSector(std::uint64_t capacity) {
  std::string sector(512, '\0');
  sector.replace(0, 4, "KDMV");
  for (int i = 0; i < 8; ++i) sector[12 + i] = static_cast<char>(capacity >> (8 * i));
  sector[28] = 1;
  sector[36] = 20;
  return sector;
}

TEST(DiskFiles, EachCaseFindsItsProblems) {
  for (const Case& c : readCases(kData + "/disk_files.txt")) {
    TempDir dir("orvane-disk-files");
    std::vector<NamedDisk> disks;
    for (const auto& [key, value] : c.fields) {
      const std::size_t blank = key.find(' ');
      const std::string verb = key.substr(0, blank),
                        file = dir.file(key.substr(blank + 1));
      if (verb == "file") writeFile(file, readFile(file) + value);
      if (verb == "pad")
        writeFile(file, readFile(file) + std::string(std::stoul(value), '#'));
      if (verb == "sparse")
        writeFile(file, readFile(file) + sparseSector(std::stoull(value)));
      if (verb == "fifo") ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
      if (verb == "dir") std::filesystem::create_directory(file);
      if (verb == "link") std::filesystem::create_symlink(value, file);
      if (verb == "disk") disks.push_back({file, value});
    }
    if (disks.empty()) disks.push_back({dir.file("d.vmdk"), "scsi0:1.fileName"});
    std::string got;
    for (const std::string& problem : diskFileProblems(disks)) {
      got += "problem: " + replaced(problem, dir.path(), "{dir}") + "\n";
    }
    EXPECT_EQ(got, c.text({"problem"})) << c.name;
  }
}

TEST(VmdkDescriptor, EachTextReadsAsExpected) {
  for (const std::vector<std::string>& row : readRows(kData + "/descriptors.tsv")) {
    ASSERT_EQ(row.size(), 5u);
    const DescriptorInfo info = parseDescriptor(row[4]);
    EXPECT_EQ(joined({descriptorHasParent(row[4]) ? "yes" : "no", info.createType,
                      isRawDeviceCreateType(info.createType) ? "yes" : "no",
                      joined(info.extents)},
                     "\t"),
              joined({row[0], row[1], row[2], row[3]}, "\t"))
        << row[4];
  }
}

// Only the first 64 KiB are scanned, so a multi-gigabyte extent is never read whole; a
// line cut at the limit counts for the part inside it. Nothing but a regular file is
// opened: the scan once waited forever for a writer of a FIFO named like a disk.
TEST(VmdkDescriptor, ParentScanReadsOnlyTheHeadOfRegularFiles) {
  TempDir dir("orvane-vmdk");
  const std::string line = "parentCID=1a2b3c4d\n";
  for (const auto& [at, parent] : {std::pair{kDescriptorScanBytes - line.size(), true},
                                   {kDescriptorScanBytes - 12, true},
                                   {kDescriptorScanBytes - 10, false},
                                   {kDescriptorScanBytes, false}}) {
    const std::string text = std::string(at - 1, '#') + "\n" + line;
    writeFile(dir.file("d.vmdk"), text + std::string(4 << 20, '\0'));
    EXPECT_EQ(descriptorHasParent(text), parent) << at;
    EXPECT_EQ(vmdkHasParent(dir.file("d.vmdk")), parent) << at;
  }
  ASSERT_EQ(mkfifo(dir.file("fifo.vmdk").c_str(), 0600), 0);
  alarm(20);  // a hang ends the whole test program, which then fails
  for (const std::string& path :
       {dir.file("fifo.vmdk"), dir.path(), dir.file("absent.vmdk"),
        std::string("/dev/null"), std::string()}) {
    EXPECT_FALSE(vmdkHasParent(path)) << path;
    EXPECT_LT(openRegularFile(path), 0) << path;
  }
  alarm(0);
}

}  // namespace
}  // namespace orvane::testing
