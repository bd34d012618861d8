#include "vmx/vmx_reader.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "conversion/errors.h"
#include "support/temp_dir.h"

namespace orvane {
namespace {

using Strings = std::vector<std::string>;
using namespace std::string_view_literals;

// Whole files in VMware's own styles are read in vmware_styles_test.cc.

TEST(VmxReader, CrAtTheLineEnd) {
  // The CR sits after the closing quote (ignored) or after an unquoted value (which
  // reads as empty anyway); an unclosed quote swallows it, and the value is lost.
  const VmxData data = parseVmxText(
      "displayName = \"web 01\"\r\n"
      "numvcpus = 4\r\n"
      "memsize = \"2048\r\n"
      "firmware=\"efi\"\r",
      "/vm");
  EXPECT_EQ(data.displayName, "web 01");
  EXPECT_EQ(data.numVcpus, "1");
  EXPECT_EQ(data.memSize, "");
  EXPECT_EQ(data.firmware, "efi");
}

struct ScalarCase {
  const char* name;
  std::string_view text;
  VmxData expected;
};

VmxData scalars(std::string displayName, std::string numVcpus, std::string memSize,
                std::string guestOs, std::string firmware) {
  VmxData data;
  data.displayName = std::move(displayName);
  data.numVcpus = std::move(numVcpus);
  data.memSize = std::move(memSize);
  data.guestOs = std::move(guestOs);
  data.firmware = std::move(firmware);
  return data;
}

TEST(VmxReader, LineGrammarAndScalarFields) {
  const ScalarCase cases[] = {
      {"empty file gives the defaults", "", scalars("", "1", "", "", "bios")},
      {"binary junk gives the defaults",
       "\x7f"
       "ELF\x02\x01\n\0=\0\xff\n"sv,
       scalars("", "1", "", "", "bios")},
      {"first occurrence wins, any key case",
       "displayName = \"web 01\"\nDISPLAYNAME = \"x\"\n",
       scalars("web 01", "1", "", "", "bios")},
      {"an empty first value still wins", "memsize = \"\"\nmemsize = \"4096\"\n",
       scalars("", "1", "", "", "bios")},
      {"an unquoted first value reads empty and still wins",
       "numvcpus = 4\nnumvcpus = \"8\"\n", scalars("", "1", "", "", "bios")},
      {"guest OS and firmware are lower-cased, name is not",
       "displayName = \"Web01\"\nguestOS = \"Windows9-64\"\nfirmware = \"EFI\"\n",
       scalars("Web01", "1", "", "windows9-64", "efi")},
      {"text after the closing quote is ignored", "memsize = \"4096\"   # note\n",
       scalars("", "1", "4096", "", "bios")},
      {"value kept verbatim: blanks, backslash, no escapes",
       "displayName = \" a\\\"b \"\n", scalars(" a\\", "1", "", "", "bios")},
      {"key trimmed of tabs and blanks, no spaces around =",
       "\t displayName\t=\"x\"\nnumvcpus=\"6\"\n", scalars("x", "6", "", "", "bios")},
      {"a # line is an ordinary key that matches nothing",
       "#displayName = \"old\"\ndisplayName = \"new\"\n",
       scalars("new", "1", "", "", "bios")},
      {"lines without = or with an empty key are skipped",
       "displayName \"x\"\n = \"y\"\n\n=\ndisplayName = \"z\"",
       scalars("z", "1", "", "", "bios")},
      {"last line needs no newline", "numvcpus = \"3\"",
       scalars("", "3", "", "", "bios")},
      {"empty firmware falls back to bios", "firmware = \"\"\n",
       scalars("", "1", "", "", "bios")},
      {"numbers stay text", "numvcpus = \"two\"\nmemsize = \"-5\"\n",
       scalars("", "two", "-5", "", "bios")},
  };
  for (const ScalarCase& c : cases) {
    EXPECT_EQ(parseVmxText(std::string(c.text), "/vm"), c.expected) << c.name;
  }
}

TEST(VmxReader, DisksComeInBusOrder) {
  const char text[] = R"(scsi0:1.fileName = "s01.vmdk"
scsi0:1.present = "TRUE"
sata0:0.fileName = "a00.vmdk"
sata0:0.present = "TRUE"
scsi0:0.fileName = "s00.vmdk"
scsi0:0.present = "TRUE"
ide1:0.fileName = "i10.vmdk"
ide1:0.present = "TRUE"
scsi0:10.fileName = "s010.vmdk"
scsi0:10.present = "TRUE"
scsi0:2.fileName = "s02.vmdk"
scsi0:2.present = "TRUE"
scsi10:0.fileName = "s100.vmdk"
scsi10:0.present = "TRUE"
scsi2:0.fileName = "s20.vmdk"
scsi2:0.present = "TRUE"
nvme0:0.fileName = "n00.vmdk"
nvme0:0.present = "TRUE"
scsi0:1.fileName = "again.vmdk"
scsi0:99999999999999999999999.fileName = "huge.vmdk"
scsi0:99999999999999999999999.present = "TRUE"
scsi0:0007.fileName = "s07.vmdk"
scsi0:0007.present = "TRUE"
)";
  // Controllers byte-wise ("scsi10" before "scsi2"), units by value whatever their
  // length; the repeated scsi0:1 key lists the disk once, under its first name.
  EXPECT_EQ(parseVmxText(text, "/vm").vmdkFiles,
            (Strings{"/vm/i10.vmdk", "/vm/n00.vmdk", "/vm/a00.vmdk", "/vm/s00.vmdk",
                     "/vm/s01.vmdk", "/vm/s02.vmdk", "/vm/s07.vmdk", "/vm/s010.vmdk",
                     "/vm/huge.vmdk", "/vm/s100.vmdk", "/vm/s20.vmdk"}));
}

TEST(VmxReader, KeysWithHugeNumbersStillMatch) {
  // Long enough to exhaust the stack of a matcher that recurses per digit.
  const std::string digits(200000, '7');
  std::string text = "ethernet" + digits + ".generatedAddress = \"00:0c:29:00:00:01\"\n";
  text += "sata" + digits + ":" + digits + ".fileName = \"d.vmdk\"\n";
  text += "sata" + digits + ":" + digits + ".present = \"TRUE\"\n";
  text += "serial" + digits + ".present = \"TRUE\"\n";
  const VmxData data = parseVmxText(text, "/vm");
  EXPECT_EQ(data.macAddresses, Strings{"00:0c:29:00:00:01"});
  EXPECT_EQ(data.vmdkFiles, Strings{"/vm/d.vmdk"});
  EXPECT_TRUE(data.hasSerial);
}

struct DiskFilterCase {
  const char* name;
  const char* text;
  bool kept;
};

TEST(VmxReader, OnlyPresentVmdkHardDisksAreKept) {
  const DiskFilterCase cases[] = {
      {"plain hard disk", "scsi0:0.fileName = \"d.vmdk\"\nscsi0:0.present = \"TRUE\"",
       true},
      {"keys and suffix in any case",
       "SCSI0:0.FILENAME = \"d.VMDK\"\nScsi0:0.Present = \"true\"", true},
      {"ESXi hard disk type",
       "scsi0:0.fileName = \"d.vmdk\"\nscsi0:0.present = \"TRUE\"\n"
       "scsi0:0.deviceType = \"scsi-hardDisk\"",
       true},
      {"ISO image", "sata0:1.fileName = \"cd.iso\"\nsata0:1.present = \"TRUE\"", false},
      {"CD-ROM image type with a vmdk name",
       "ide1:0.fileName = \"cd.vmdk\"\nide1:0.present = \"TRUE\"\n"
       "ide1:0.deviceType = \"cdrom-image\"",
       false},
      {"ATAPI CD-ROM type",
       "ide1:0.fileName = \"cd.vmdk\"\nide1:0.present = \"TRUE\"\n"
       "ide1:0.deviceType = \"ATAPI-cdrom\"",
       false},
      {"floppy type",
       "sata0:2.fileName = \"f.vmdk\"\nsata0:2.present = \"TRUE\"\n"
       "sata0:2.deviceType = \"floppy\"",
       false},
      {"no present line", "scsi0:3.fileName = \"d.VMDK\"", false},
      {"present FALSE", "scsi0:0.fileName = \"d.vmdk\"\nscsi0:0.present = \"FALSE\"",
       false},
      {"present with a blank inside the quotes",
       "scsi0:0.fileName = \"d.vmdk\"\nscsi0:0.present = \"TRUE \"", false},
      {"present 1", "scsi0:0.fileName = \"d.vmdk\"\nscsi0:0.present = \"1\"", false},
      {"first present line wins",
       "scsi0:0.fileName = \"d.vmdk\"\nscsi0:0.present = \"FALSE\"\nscsi0:0.present = "
       "\"TRUE\"",
       false},
      {"empty file name", "scsi0:0.fileName = \"\"\nscsi0:0.present = \"TRUE\"", false},
      {"raw device name",
       "scsi0:0.fileName = \"/vmfs/devices/disks/naa.600\"\n"
       "scsi0:0.present = \"TRUE\"",
       false},
      {"unknown bus", "usb0:0.fileName = \"d.vmdk\"\nusb0:0.present = \"TRUE\"", false},
      {"controller without a unit",
       "scsi0.fileName = \"d.vmdk\"\nscsi0.present = \"TRUE\"", false},
      {"key with a trailing word",
       "scsi0:0.fileName2 = \"d.vmdk\"\n"
       "scsi0:0.present = \"TRUE\"",
       false},
  };
  for (const DiskFilterCase& c : cases) {
    EXPECT_EQ(parseVmxText(c.text, "/vm").vmdkFiles.size(), c.kept ? 1u : 0u) << c.name;
  }
}

TEST(VmxReader, DiskPathsAreJoinedAsText) {
  const struct {
    const char* fileName;
    const char* folder;
    const char* path;
  } cases[] = {
      {"/vmfs/vol/a.vmdk", "/mnt/vm", "/vmfs/vol/a.vmdk"},
      {"a.vmdk", "/mnt/vm/", "/mnt/vm//a.vmdk"},
      {"a.vmdk", "/mnt/vm", "/mnt/vm/a.vmdk"},
      {"../shared/base.vmdk", "vms/x", "vms/x/../shared/base.vmdk"},
      {"My Disk.vmdk", "/mnt/My VM", "/mnt/My VM/My Disk.vmdk"},
  };
  for (const auto& c : cases) {
    const std::string text = std::string("scsi0:0.fileName = \"") + c.fileName +
                             "\"\nscsi0:0.present = \"TRUE\"\n";
    EXPECT_EQ(parseVmxText(text, c.folder).vmdkFiles, Strings{c.path}) << c.fileName;
  }
}

TEST(VmxReader, OneMacPerNicThatIsNotSwitchedOff) {
  const struct {
    const char* name;
    const char* text;
    Strings macs;
  } cases[] = {
      {"generated addresses in the order the NICs appear, empty and repeated kept",
       "ethernet1.generatedAddress = \"00:0c:29:00:00:02\"\n"
       "ethernet0.generatedAddress = \"00:0c:29:00:00:01\"\n"
       "ethernet2.generatedAddress = \"\"\n"
       "ethernet3.generatedAddress = \"00:0c:29:00:00:01\"\n"
       "Ethernet12.GeneratedAddress = \"00:0c:29:00:00:0c\"\n"
       "ethernet.generatedAddress = \"00:0c:29:ff:ff:ff\"\n"
       "ethernetX.generatedAddress = \"00:0c:29:ff:ff:fe\"\n"
       "ethernet0.generatedAddressOffset = \"0\"\n",
       {"00:0c:29:00:00:02", "00:0c:29:00:00:01", "", "00:0c:29:00:00:01",
        "00:0c:29:00:00:0c"}},
      {"a static address wins over a stale generated one",
       "ethernet0.addressType = \"static\"\nethernet0.generatedAddress = "
       "\"00:0c:29:00:00:01\"\n"
       "ethernet0.address = \"00:50:56:3F:00:10\"\n",
       {"00:50:56:3F:00:10"}},
      {"keys and the static type in any case",
       "ETHERNET0.ADDRESSTYPE = \"Static\"\nEthernet0.Address = \"00:50:56:3f:00:10\"\n"
       "ethernet0.generatedAddress = \"00:0c:29:00:00:01\"\n",
       {"00:50:56:3f:00:10"}},
      {"an address alone is the MAC",
       "ethernet0.address = \"00:50:56:3f:00:10\"\n",
       {"00:50:56:3f:00:10"}},
      {"without the static type the generated address wins",
       "ethernet0.addressType = \"vpx\"\nethernet0.address = \"00:50:56:3f:00:10\"\n"
       "ethernet0.generatedAddress = \"00:50:56:8a:00:01\"\n",
       {"00:50:56:8a:00:01"}},
      {"static without an address keeps the generated one",
       "ethernet0.addressType = \"static\"\nethernet0.address = \"\"\n"
       "ethernet0.generatedAddress = \"00:0c:29:00:00:01\"\n",
       {"00:0c:29:00:00:01"}},
      {"a NIC switched off is left out in any case, a present one kept",
       "ethernet0.present = \"FALSE\"\nethernet0.generatedAddress = "
       "\"00:0c:29:00:00:01\"\n"
       "ethernet1.generatedAddress = \"00:0c:29:00:00:02\"\nEthernet1.Present = "
       "\"false\"\n"
       "ethernet2.present = \"TRUE\"\nethernet2.generatedAddress = "
       "\"00:0c:29:00:00:03\"\n"
       "ethernet3.present = \"0\"\nethernet3.generatedAddress = \"00:0c:29:00:00:04\"\n",
       {"00:0c:29:00:00:03", "00:0c:29:00:00:04"}},
      {"one NIC however its keys are spelt; the first of each key wins",
       "Ethernet0.present = \"TRUE\"\nEthernet0.generatedAddress = "
       "\"00:0c:29:00:00:01\"\n"
       "ethernet0.present = \"FALSE\"\nethernet0.generatedAddress = "
       "\"00:0c:29:00:00:02\"\n",
       {"00:0c:29:00:00:01"}},
      {"a NIC without an address key is none", "ethernet0.present = \"TRUE\"\n", {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parseVmxText(c.text, "/vm").macAddresses, c.macs) << c.name;
  }
}

TEST(VmxReader, HddOrderPutsTheNamedDisksFirst) {
  const std::string disks =
      "scsi0:0.fileName = \"sys.vmdk\"\nscsi0:0.present = \"TRUE\"\n"
      "sata0:0.fileName = \"data.vmdk\"\nsata0:0.present = \"TRUE\"\n"
      "nvme0:0.fileName = \"fast.vmdk\"\nnvme0:0.present = \"TRUE\"\n"
      "ide1:0.fileName = \"cd.iso\"\nide1:0.present = \"TRUE\"\n";
  const struct {
    const char* hddOrder;
    Strings devices;
    bool applied;
  } cases[] = {
      {nullptr, {"nvme0:0", "sata0:0", "scsi0:0"}, false},
      {"scsi0:0", {"scsi0:0", "nvme0:0", "sata0:0"}, true},
      {"scsi0:0,sata0:0", {"scsi0:0", "sata0:0", "nvme0:0"}, true},
      {" SCSI0:0 , sata0:00 ,scsi0:0", {"scsi0:0", "sata0:0", "nvme0:0"}, true},
      // Devices that are no hard disk here are passed over.
      {"ide1:0,scsi1:0,,sata0:0", {"sata0:0", "nvme0:0", "scsi0:0"}, true},
      {"ide0:0", {"nvme0:0", "sata0:0", "scsi0:0"}, false},
      {"", {"nvme0:0", "sata0:0", "scsi0:0"}, false},
  };
  for (const auto& c : cases) {
    const std::string text =
        (c.hddOrder ? std::string("bios.hddOrder = \"") + c.hddOrder + "\"\n" : "") +
        disks;
    const VmxData data = parseVmxText(text, "/vm");
    EXPECT_EQ(data.diskDevices, c.devices) << (c.hddOrder ? c.hddOrder : "none");
    EXPECT_EQ(data.hddOrderApplied, c.applied) << (c.hddOrder ? c.hddOrder : "none");
    // The paths move with their devices.
    const std::map<std::string, std::string> fileOf = {{"scsi0:0", "/vm/sys.vmdk"},
                                                       {"sata0:0", "/vm/data.vmdk"},
                                                       {"nvme0:0", "/vm/fast.vmdk"}};
    Strings paths;
    for (const std::string& device : c.devices) paths.push_back(fileOf.at(device));
    EXPECT_EQ(data.vmdkFiles, paths);
  }
}

TEST(VmxReader, HardwareFlags) {
  const struct {
    const char* text;
    bool vtpm, passthrough, serial;
  } cases[] = {
      {"", false, false, false},
      {"vtpm.present = \"TRUE\"", true, false, false},
      {"vtpm.present = \"yes\"", false, false, false},
      {"vtpm.present = \"FALSE\"\nvtpm.present = \"TRUE\"", false, false, false},
      {"pcipassthru0.present = \"FALSE\"\npcipassthru1.present = \"TRUE\"", false, true,
       false},
      {"pciPassthru0.present = \"TRUE \"", false, false, false},
      {"pciPassthru.present = \"TRUE\"", false, false, false},
      {"pciPassthru0.present = \"TRUE\"\npciPassthru0.present = \"FALSE\"", false, true,
       false},
      {"serial0.present = \"FALSE\"", false, false, false},
      {"serial0.present = \"FALSE\"\nserial1.present = \"True\"", false, false, true},
      {"serial0.fileType = \"pipe\"", false, false, false},
  };
  for (const auto& c : cases) {
    const VmxData data = parseVmxText(c.text, "/vm");
    EXPECT_EQ(data.hasVtpm, c.vtpm) << c.text;
    EXPECT_EQ(data.hasPassthrough, c.passthrough) << c.text;
    EXPECT_EQ(data.hasSerial, c.serial) << c.text;
  }
}

const char kBaseDescriptor[] = R"(# Disk DescriptorFile
version=1
encoding="UTF-8"
CID=5b6c7d8e
parentCID=ffffffff
createType="monolithicSparse"

# Extent description
RW 41943040 SPARSE "web01-s001.vmdk"
)";

const char kDeltaDescriptor[] = R"(# Disk DescriptorFile
version=1
encoding="UTF-8"
CID=9a8b7c6d
parentCID=5b6c7d8e
createType="monolithicSparse"
parentFileNameHint="web01.vmdk"
)";

TEST(VmxReader, ReadsFileAndFindsSnapshotChildren) {
  testing::TempDir dir("orvane-vmx");
  testing::writeFile(dir.file("web01.vmdk"), kBaseDescriptor);
  testing::writeFile(dir.file("web01-000001.vmdk"), kDeltaDescriptor);
  testing::writeFile(dir.file("web01.vmx"), R"(displayName = "web01"
scsi0:0.fileName = "web01.vmdk"
scsi0:0.present = "TRUE"
scsi0:1.fileName = "web01-000001.vmdk"
scsi0:1.present = "TRUE"
scsi0:2.fileName = "missing.vmdk"
scsi0:2.present = "TRUE"
)");
  const VmxData data = parseVmx(dir.file("web01.vmx"), dir.path());
  EXPECT_EQ(data.displayName, "web01");
  EXPECT_EQ(data.vmdkFiles.size(), 3u);
  // A missing disk is no snapshot child; its absence is found later.
  EXPECT_EQ(data.snapDisks, Strings{"web01-000001.vmdk"});
}

TEST(VmxReader, UnreadableVmxThrows) {
  testing::TempDir dir("orvane-vmx");
  for (const std::string& path : {dir.file("absent.vmx"), dir.path()}) {
    try {
      parseVmx(path, dir.path());
      ADD_FAILURE() << "no error for " << path;
    } catch (const V2vError& e) {
      EXPECT_EQ(std::string(e.what()), "Could not read the VMX file: " + path);
      EXPECT_EQ(e.stage(), "");
      EXPECT_FALSE(e.alreadyReported());
    }
  }
}

}  // namespace
}  // namespace orvane
