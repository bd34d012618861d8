// The decisions of the boot harness, checked without booting anything.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/qemu_boot.h"

namespace orvane::testing {
namespace {

TEST(ClassifySerial, DecidesOnlyOnDecisiveText) {
  struct Case {
    const char* serial;
    SerialVerdict verdict;
  };
  const Case cases[] = {
      {"", SerialVerdict::kRunning},
      {"[    3.54] Run /init as init process\r\n", SerialVerdict::kRunning},
      // One option failing is not the end: the next one may still boot.
      {"BdsDxe: failed to load Boot0001 \"UEFI QEMU HARDDISK QM00001 \" from "
       "PciRoot(0x0)/Pci(0x1F,0x2)/Sata(0x0,0xFFFF,0x0): Not Found\r\n",
       SerialVerdict::kRunning},
      {"Failed to open \\EFI\\BOOT\\grubx64.efi - Not Found\r\n", SerialVerdict::kRunning},
      {"\r\nORVANE-BOOT-OK\r\n[    4.01] reboot: Power down\r\n", SerialVerdict::kBooted},
      {"BdsDxe: loading Boot0002 \"EFI Internal Shell\" from Fv(7CB8BDC9)\r\n",
       SerialVerdict::kGaveUp},
      {"\x1b[11;01H\x1b[1m\x1b[33m\x1b[40mShell> \x1b[0m", SerialVerdict::kGaveUp},
      {"BdsDxe: No bootable option or device was found.\r\n", SerialVerdict::kGaveUp},
      {"error: file `/boot/grub/normal.mod' not found.\r\ngrub rescue> ", SerialVerdict::kGaveUp},
      {"Kernel panic - not syncing: No working init found.\r\n", SerialVerdict::kGaveUp},
  };
  for (const Case& c : cases) {
    std::string why;
    EXPECT_EQ(classifySerial(c.serial, &why), c.verdict) << c.serial;
    EXPECT_EQ(why.empty(), c.verdict == SerialVerdict::kRunning) << c.serial;
  }
}

TEST(BootRequestFromDomainXml, ReadsFirmwareMachineAndDiskBus) {
  struct Case {
    const char* name;
    const char* xml;
    GuestFirmware firmware;
    const char* machine;
    GuestDiskBus bus;
  };
  const Case cases[] = {
      {"virsh dumpxml of a UEFI guest",
       "<domain type='qemu'><os firmware='efi'>\n"
       "  <type arch='x86_64' machine='pc-q35-7.2'>hvm</type>\n</os><devices>\n"
       "<disk type='file' device='disk'><driver name='qemu' type='qcow2'/>\n"
       "  <target dev='sda' bus='sata'/></disk></devices></domain>",
       GuestFirmware::kUefi, "pc-q35-7.2", GuestDiskBus::kSata},
      {"virt-install --print-xml of a legacy guest",
       "<domain type=\"kvm\"><os><type arch=\"x86_64\" machine=\"pc-i440fx-7.2\">hvm</type>"
       "<boot dev=\"hd\"/></os><devices><disk type=\"file\" device=\"disk\">"
       "<target dev=\"hda\" bus=\"ide\"/></disk></devices></domain>",
       GuestFirmware::kBios, "pc-i440fx-7.2", GuestDiskBus::kIde},
      {"an expanded loader instead of the firmware attribute",
       "<os><type arch='x86_64' machine='q35'>hvm</type>"
       "<loader readonly='yes' type='pflash'>/usr/share/OVMF/OVMF_CODE_4M.fd</loader></os>"
       "<disk type='file' device='disk'><target dev='sda' bus='sata'/></disk>",
       GuestFirmware::kUefi, "q35", GuestDiskBus::kSata},
      {"a CD-ROM on IDE ahead of the disk",
       "<os><type arch='x86_64' machine='pc'>hvm</type></os>"
       "<disk type='file' device='cdrom'><target dev='hdc' bus='ide'/></disk>"
       "<disk type='file' device='disk'><target dev='sda' bus='sata'/></disk>",
       GuestFirmware::kBios, "pc", GuestDiskBus::kSata},
  };
  for (const Case& c : cases) {
    const BootRequest r = bootRequestFromDomainXml(c.xml);
    EXPECT_EQ(r.firmware, c.firmware) << c.name;
    EXPECT_EQ(r.machine, c.machine) << c.name;
    EXPECT_EQ(r.bus, c.bus) << c.name;
  }
}

bool has(const std::vector<std::string>& args, const std::string& arg) {
  return std::find(args.begin(), args.end(), arg) != args.end();
}

TEST(QemuBootArgs, PutsTheDiskOnTheRequestedBusAndNeverWritesIt) {
  struct Case {
    const char* name;
    GuestFirmware firmware;
    const char* machine;
    GuestDiskBus bus;
    std::vector<std::string> expected;
    std::vector<std::string> absent;
  };
  const std::string code =
      "if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd";
  const Case cases[] = {
      {"BIOS on SATA adds an AHCI controller to the default machine", GuestFirmware::kBios, "",
       GuestDiskBus::kSata,
       {"pc", "ahci,id=sata0", "ide-hd,drive=disk0,bus=sata0.0"},
       {code}},
      {"BIOS on IDE uses the machine's own IDE channel", GuestFirmware::kBios, "pc-i440fx-7.2",
       GuestDiskBus::kIde,
       {"pc-i440fx-7.2", "ide-hd,drive=disk0,bus=ide.0"},
       {"ahci,id=sata0", code}},
      {"UEFI on q35 SATA uses the built-in AHCI and a private variable store",
       GuestFirmware::kUefi, "", GuestDiskBus::kSata,
       {"q35", "ide-hd,drive=disk0,bus=ide.0", code, "if=pflash,format=raw,file=/w/vars.fd"},
       {"ahci,id=sata0"}},
  };
  for (const Case& c : cases) {
    BootRequest request;
    request.image = "/w/disk.qcow2";
    request.format = "qcow2";
    request.firmware = c.firmware;
    request.machine = c.machine;
    request.bus = c.bus;
    const auto args = qemuBootArgs(request, "/w/serial.log", "/w/vars.fd");
    for (const auto& arg : c.expected) EXPECT_TRUE(has(args, arg)) << c.name << ": " << arg;
    for (const auto& arg : c.absent) EXPECT_FALSE(has(args, arg)) << c.name << ": " << arg;
    EXPECT_TRUE(has(args, "file=/w/disk.qcow2,format=qcow2,if=none,id=disk0,snapshot=on"))
        << c.name;
    EXPECT_TRUE(has(args, "file:/w/serial.log")) << c.name;
    EXPECT_TRUE(has(args, "-no-reboot")) << c.name;
    EXPECT_TRUE(has(args, "tcg")) << c.name;
  }
}

}  // namespace
}  // namespace orvane::testing
