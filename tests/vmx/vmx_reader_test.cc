#include "vmx/vmx_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "conversion/errors.h"
#include "support/temp_dir.h"

namespace orvane {
namespace {

using Strings = std::vector<std::string>;
using namespace std::string_view_literals;

// As VMware Workstation writes it: UTF-8 marker first, a CD-ROM image on SATA, a
// floppy, a NAT NIC and an NVMe system disk.
const char kWorkstationVmx[] = R"(.encoding = "UTF-8"
config.version = "8"
virtualHW.version = "19"
pciBridge0.present = "TRUE"
pciBridge4.present = "TRUE"
pciBridge4.virtualDev = "pcieRootPort"
vmci0.present = "TRUE"
hpet0.present = "TRUE"
nvram = "web01.nvram"
virtualHW.productCompatibility = "hosted"
powerType.powerOff = "soft"
displayName = "web01"
firmware = "efi"
guestOS = "ubuntu-64"
tools.syncTime = "FALSE"
numvcpus = "2"
cpuid.coresPerSocket = "2"
memsize = "4096"
nvme0.present = "TRUE"
nvme0:0.fileName = "web01.vmdk"
nvme0:0.present = "TRUE"
sata0.present = "TRUE"
sata0:1.deviceType = "cdrom-image"
sata0:1.fileName = "/home/ops/iso/ubuntu-22.04-live-server-amd64.iso"
sata0:1.present = "TRUE"
floppy0.fileType = "file"
floppy0.fileName = "web01.flp"
usb.present = "TRUE"
ehci.present = "TRUE"
sound.present = "TRUE"
sound.virtualDev = "hdaudio"
ethernet0.connectionType = "nat"
ethernet0.addressType = "generated"
ethernet0.virtualDev = "e1000e"
ethernet0.present = "TRUE"
ethernet0.generatedAddress = "00:0c:29:3a:5b:7c"
ethernet0.generatedAddressOffset = "0"
serial0.present = "FALSE"
extendedConfigFile = "web01.vmxf"
uuid.bios = "56 4d 1c 2e 8a 7f 3b 01-9e 44 5d 0f 6a 21 b3 c8"
uuid.location = "56 4d 1c 2e 8a 7f 3b 01-9e 44 5d 0f 6a 21 b3 c8"
vmxstats.filename = "web01.scoreboard"
)";

// As ESXi writes it: SCSI disks on two datastores, an ATAPI CD-ROM on IDE, two
// NICs (one with a static address), vTPM and a passthrough device.
const char kEsxiVmx[] = R"(.encoding = "UTF-8"
config.version = "8"
virtualHW.version = "14"
vmci0.present = "TRUE"
floppy0.present = "FALSE"
numvcpus = "4"
memSize = "16384"
bios.bootRetry.delay = "10"
firmware = "efi"
tools.upgrade.policy = "manual"
scsi0.virtualDev = "lsisas1068"
scsi0.present = "TRUE"
ide1:0.startConnected = "FALSE"
ide1:0.deviceType = "atapi-cdrom"
ide1:0.fileName = "CD/DVD drive 0"
ide1:0.present = "TRUE"
scsi0:0.deviceType = "scsi-hardDisk"
scsi0:0.fileName = "db01.vmdk"
scsi0:0.present = "TRUE"
scsi0:1.deviceType = "scsi-hardDisk"
scsi0:1.fileName = "/vmfs/volumes/5f2a-datastore2/db01/db01_1.vmdk"
scsi0:1.present = "TRUE"
ethernet0.virtualDev = "vmxnet3"
ethernet0.networkName = "VM Network"
ethernet0.addressType = "vpx"
ethernet0.generatedAddress = "00:50:56:9a:01:02"
ethernet0.present = "TRUE"
ethernet1.virtualDev = "vmxnet3"
ethernet1.addressType = "static"
ethernet1.address = "00:50:56:00:00:01"
ethernet1.present = "TRUE"
displayName = "db01"
guestOS = "windows2019srv-64"
vtpm.present = "TRUE"
pciPassthru0.id = "00000:059:00.0"
pciPassthru0.present = "TRUE"
sched.cpu.min = "0"
sched.mem.shares = "normal"
)";

TEST(VmxReader, ReadsWorkstationFile) {
  const VmxData data = parseVmxText(kWorkstationVmx, "/srv/vms/web01");
  EXPECT_EQ(data.displayName, "web01");
  EXPECT_EQ(data.numVcpus, "2");
  EXPECT_EQ(data.memSize, "4096");
  EXPECT_EQ(data.guestOs, "ubuntu-64");
  EXPECT_EQ(data.firmware, "efi");
  EXPECT_EQ(data.macAddresses, Strings{"00:0c:29:3a:5b:7c"});
  EXPECT_EQ(data.vmdkFiles, Strings{"/srv/vms/web01/web01.vmdk"});
  EXPECT_TRUE(data.snapDisks.empty());
  EXPECT_FALSE(data.hasVtpm);
  EXPECT_FALSE(data.hasPassthrough);
  EXPECT_FALSE(data.hasSerial);
}

TEST(VmxReader, ReadsEsxiFile) {
  const VmxData data = parseVmxText(kEsxiVmx, "/mnt/db01");
  EXPECT_EQ(data.displayName, "db01");
  EXPECT_EQ(data.numVcpus, "4");
  EXPECT_EQ(data.memSize, "16384");
  EXPECT_EQ(data.guestOs, "windows2019srv-64");
  EXPECT_EQ(data.firmware, "efi");
  // The static address of ethernet1 is not a generated one.
  EXPECT_EQ(data.macAddresses, Strings{"00:50:56:9a:01:02"});
  EXPECT_EQ(data.vmdkFiles, (Strings{"/mnt/db01/db01.vmdk",
                                     "/vmfs/volumes/5f2a-datastore2/db01/db01_1.vmdk"}));
  EXPECT_TRUE(data.hasVtpm);
  EXPECT_TRUE(data.hasPassthrough);
  EXPECT_FALSE(data.hasSerial);
}

std::string withCrlf(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

TEST(VmxReader, CrlfLineEndsReadLikeLf) {
  for (const char* text : {kWorkstationVmx, kEsxiVmx}) {
    EXPECT_EQ(parseVmxText(withCrlf(text), "/vm"), parseVmxText(text, "/vm"));
  }
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

TEST(VmxReader, GeneratedMacsInFileOrderOnly) {
  const char text[] = R"(ethernet1.generatedAddress = "00:0c:29:00:00:02"
ethernet0.generatedAddress = "00:0c:29:00:00:01"
ethernet0.address = "00:50:56:00:00:09"
ethernet2.generatedAddress = ""
ethernet3.generatedAddress = "00:0c:29:00:00:01"
Ethernet12.GeneratedAddress = "00:0c:29:00:00:0c"
ethernet.generatedAddress = "00:0c:29:ff:ff:ff"
ethernet0.generatedAddressOffset = "0"
)";
  EXPECT_EQ(parseVmxText(text, "/vm").macAddresses,
            (Strings{"00:0c:29:00:00:02", "00:0c:29:00:00:01", "", "00:0c:29:00:00:01",
                     "00:0c:29:00:00:0c"}));
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
