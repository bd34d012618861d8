// The reader on the .vmx files and texts of data/, the disk files' problems on folders
// that data/disk_files.txt builds, and what is read from descriptor texts.
#include <sys/stat.h>

#include <filesystem>

#include "support/tables.h"
#include "vmx/disk_files.h"
#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace orvane::testing {
namespace {

const std::string kData = ORVANE_SOURCE_DIR "/tests/vmx/data";

TEST(VmxReader, EachCaseReadsAsExpected) {
  const std::string n(200000, '7');
  for (const char* table : {"/files.txt", "/line_grammar.txt"}) {
    for (const Case& c : readCases(kData + table)) {
      VmxData d;
      std::string got;
      try {
        d = c["file"].empty() ? parseVmxText(replaced(c["vmx"], "{n}", n),
                                             c["folder"].empty() ? "/vm" : c["folder"])
                              : parseVmx(kData + "/" + c["file"], kData);
      } catch (const V2vError& e) {
        got = std::string("error: ") + e.what() + "\n";
      }
      // What differs from an empty file's fields, as "key: value" lines.
      std::vector<std::string> disks;
      for (std::size_t i = 0; i < d.vmdkFiles.size(); ++i)
        disks.push_back(d.diskDevices.at(i) + " " + d.vmdkFiles[i]);
      const std::string flags =
          std::string(d.hasVtpm ? " vtpm" : "") +
          (d.hasPassthrough ? " passthrough" : "") + (d.hasSerial ? " serial" : "") +
          (d.encrypted ? " encrypted" : "") + (d.hddOrderApplied ? " hddorder" : "");
      for (const auto& [key, value, shown] :
           {std::tuple{"name", d.displayName, !d.displayName.empty()},
            {"cpus", d.numVcpus, d.numVcpus != "1"},
            {"memory", d.memSize, !d.memSize.empty()},
            {"guest", d.guestOs, !d.guestOs.empty()},
            {"firmware", d.firmware, d.firmware != "bios"},
            {"disks", joined(disks), d.vmdkFiles.size() + d.diskDevices.size() > 0},
            {"macs", joined(d.macAddresses), !d.macAddresses.empty()},
            {"snapshots", joined(d.snapDisks), !d.snapDisks.empty()},
            {"flags", flags.substr(!flags.empty()), !flags.empty()}}) {
        if (shown) got += std::string(key) + ": " + value + "\n";
      }
      EXPECT_EQ(replaced(replaced(got, kData, "{dir}"), n, "{n}"),
                c.text({"error", "name", "cpus", "memory", "guest", "firmware", "disks",
                        "macs", "snapshots", "flags"}))
          << c.name;
      // Line ends are VMware's or an editor's choice, never a meaning.
      const std::string lf = replaced(readFile(kData + "/" + c["file"]), "\r", "");
      EXPECT_TRUE(lf.empty() || parseVmxText(replaced(lf, "\n", "\r\n"), kData) == d)
          << c.name;
    }
  }
}

TEST(DiskFiles, EachCaseFindsItsProblems) {
  for (const Case& c : readCases(kData + "/disk_files.txt")) {
    TempDir dir("orvane-disk-files");
    std::vector<NamedDisk> disks;
    for (const auto& [key, value] : c.fields) {
      const std::string verb = key.substr(0, key.find(' ')),
                        file = dir.file(key.substr(key.find(' ') + 1));
      // "sparse" appends the sector that opens a sparse extent, its descriptor next.
      std::string head(512, '\0');
      head.replace(0, 4, "KDMV"), head[28] = 1, head[36] = 20;
      for (int i = 0; verb == "sparse" && i < 8; ++i)
        head[12 + i] = static_cast<char>(std::stoull(value) >> (8 * i));
      if (verb == "file") writeFile(file, readFile(file) + value);
      if (verb == "pad")
        writeFile(file, readFile(file) + std::string(std::stoul(value), '#'));
      if (verb == "sparse") writeFile(file, readFile(file) + head);
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
                      joined(info.extents), row[4]},
                     "\t"),
              joined(row, "\t"));
  }
}

}  // namespace
}  // namespace orvane::testing
