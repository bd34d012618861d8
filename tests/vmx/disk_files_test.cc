// The files behind each disk, on folders that each case of data/disk_files.txt builds,
// and what is read from descriptor texts.
#include "vmx/disk_files.h"

#include <sys/stat.h>

#include <filesystem>

#include "support/tables.h"
#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace orvane::testing {
namespace {

const std::string kData = std::string(ORVANE_SOURCE_DIR) + "/tests/vmx/data";

TEST(DiskFiles, EachCaseFindsItsProblems) {
  for (const Case& c : readCases(kData + "/disk_files.txt")) {
    TempDir dir("orvane-disk-files");
    std::vector<NamedDisk> disks;
    for (const auto& [key, value] : c.fields) {
      const std::size_t blank = key.find(' ');
      const std::string verb = key.substr(0, blank),
                        file = dir.file(key.substr(blank + 1));
      std::string sector(512,
                         '\0');  // opens a sparse extent, its descriptor in the next 20
      sector.replace(0, 4, "KDMV"), sector[28] = 1, sector[36] = 20;
      for (int i = 0; verb == "sparse" && i < 8; ++i) {
        sector[12 + i] = static_cast<char>(std::stoull(value) >> (8 * i));
      }
      if (verb == "file") writeFile(file, readFile(file) + value);
      if (verb == "pad")
        writeFile(file, readFile(file) + std::string(std::stoul(value), '#'));
      if (verb == "sparse") writeFile(file, readFile(file) + sector);
      if (verb == "fifo") mkfifo(file.c_str(), 0600);
      if (verb == "dir") std::filesystem::create_directory(file);
      if (verb == "link") std::filesystem::create_symlink(value, file);
      if (verb == "disk") disks.push_back({file, value});
    }
    if (disks.empty()) disks.push_back({dir.file("d.vmdk"), "scsi0:1.fileName"});
    std::string got;
    for (const std::string& problem : diskFileProblems(disks)) {
      got += "problem: " + replaced(problem, dir.path(), "{dir}") + "\n";
    }
    // The parent scan of the same file opens nothing but a regular file (it once
    // waited forever for a writer of a FIFO) and reads only its first 64 KiB.
    got += std::string("parent: ") + (vmdkHasParent(disks[0].path) ? "yes\n" : "no\n");
    EXPECT_EQ(got, c.text({"problem", "parent"})) << c.name;
  }
}

TEST(VmdkDescriptor, EachTextReadsAsExpected) {
  for (const std::vector<std::string>& row : readRows(kData + "/descriptors.tsv")) {
    const DescriptorInfo info = parseDescriptor(row.at(4));
    EXPECT_EQ(joined({descriptorHasParent(row[4]) ? "yes" : "no", info.createType,
                      isRawDeviceCreateType(info.createType) ? "yes" : "no",
                      joined(info.extents)},
                     "\t"),
              joined({row[0], row[1], row[2], row[3]}, "\t"))
        << row[4];
  }
}

}  // namespace
}  // namespace orvane::testing
