#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

#include "conversion/outcome_record.h"
#include "conversion/step_helpers.h"
#include "conversion/target_naming.h"
#include "support/fake_tools.h"

namespace orvane {
namespace {

TEST(OutcomeRecord, FieldsFollowTheResult) {
  struct Case {
    OutcomeFacts facts;
    std::string line;
  };
  const Case cases[] = {
      {{"web01", 0, false, "post_create", "vmware", "efi", "virtio", 42},
       " vm=web01 result=success source=vmware firmware=efi hw=virtio duration=42s "
       "version=0.2.2"},
      {{"Web Server", 1, false, "validation", "", "", "", 0},
       " vm=Web Server result=failure stage=validation duration=0s version=0.2.2"},
      {{"", 1, false, "validation", "", "", "", 0},
       " vm= result=failure stage=validation duration=0s version=0.2.2"},
      {{"w7", 2, false, "boot_fix", "vmware", "efi", "ide", 3},
       " vm=w7 result=boot_not_guaranteed source=vmware firmware=efi hw=ide+e1000 duration=3s "
       "version=0.2.2"},
      {{"a", 0, true, "", "vmware", "bios", "sata", 1},
       " vm=a result=dry_run source=vmware firmware=bios hw=sata+e1000 duration=1s version=0.2.2"},
      {{"a", 1, true, "ingest", "vmware", "", "", 1},
       " vm=a result=dry_run_failed source=vmware duration=1s version=0.2.2"},
      {{"a", 130, false, "boot_fix", "vmware", "bios", "sata", 9},
       " vm=a result=interrupted source=vmware firmware=bios hw=sata+e1000 duration=9s "
       "version=0.2.2 reason=\"SIGINT (Ctrl-C)\""},
      {{"a", 129, true, "", "", "", "", 0},
       " vm=a result=interrupted duration=0s version=0.2.2 reason=\"SIGHUP (terminal "
       "disconnect)\""},
  };
  for (const Case& c : cases) EXPECT_EQ(c.line, formatOutcomeFields(c.facts));
  EXPECT_EQ("SIGTERM", interruptReason(143));
  EXPECT_EQ("signal 9", interruptReason(137));
}

TEST(OutcomeRecord, NamesAndTheirSanitisedForms) {
  EXPECT_EQ("web01", recordNameFor("web01", "/vms/x"));
  EXPECT_EQ("Web Server", recordNameFor("", "/vms/Web Server"));
  EXPECT_EQ("", recordNameFor("", "/vms/Web Server/"));
  EXPECT_EQ("<unknown>", recordNameFor("", ""));
  EXPECT_EQ("Web_Server", sanitizeRecordName("Web Server"));
  EXPECT_EQ("a.b+c-d_e", sanitizeRecordName("a.b+c-d_e"));
  EXPECT_EQ("_unknown_", sanitizeRecordName("<unknown>"));
  EXPECT_EQ("caf__", sanitizeRecordName("caf\xc3\xa9"));  // one "_" per byte
  EXPECT_EQ("a_b", sanitizeRecordName("a/b"));
}

TEST(TargetNaming, OneDiskHasNoDeviceInItsName) {
  auto t = planTargets("/var/lib/libvirt/images", "web01", "sd", 1);
  ASSERT_EQ(1u, t.size());
  EXPECT_EQ("/var/lib/libvirt/images/web01.qcow2", t[0].image);
  EXPECT_EQ("sda", t[0].device);
  EXPECT_EQ("/data//web01.qcow2", planTargets("/data/", "web01", "sd", 1)[0].image);
}

TEST(TargetNaming, SeveralDisksCarryTheirDeviceAndCountPastZ) {
  auto t = planTargets("/o", "w2k8", "hd", 3);
  EXPECT_EQ("/o/w2k8-hda.qcow2", t[0].image);
  EXPECT_EQ("/o/w2k8-hdc.qcow2", t[2].image);
  auto many = planTargets("/o", "v", "vd", 28);
  EXPECT_EQ("vdz", many[25].device);
  EXPECT_EQ("vd26", many[26].device);
  EXPECT_EQ("/o/v-vd27.qcow2", many[27].image);
}

TEST(StepHelpers, TrailingSlashAndSuffix) {
  EXPECT_EQ("/vm", stripTrailingSlash("/vm/"));
  EXPECT_EQ("/vm/", stripTrailingSlash("/vm//"));
  EXPECT_EQ("/", stripTrailingSlash("/"));
  EXPECT_EQ("", stripTrailingSlash(""));
  EXPECT_TRUE(endsWithLower("VM.VMX", ".vmx"));
  EXPECT_FALSE(endsWithLower("vmx", ".vmx"));
  EXPECT_FALSE(endsWithLower("a.vmxf", ".vmx"));
}

TEST(StepHelpers, CommandExistsIgnoresEmptyPathElements) {
  testing::FakeTools tools;
  tools.add("orvane-probe-tool", "exit 0");
  const std::string dir = tools.dir();
  setenv("PATH", ("::" + dir + ":").c_str(), 1);
  EXPECT_TRUE(commandExists("orvane-probe-tool"));
  EXPECT_FALSE(commandExists("orvane-no-such-tool"));
  // An empty element must not mean the current directory.
  ASSERT_EQ(0, chdir(dir.c_str()));
  setenv("PATH", "::", 1);
  EXPECT_FALSE(commandExists("orvane-probe-tool"));
  ASSERT_EQ(0, chdir("/"));
  unsetenv("PATH");
  EXPECT_FALSE(commandExists("sh"));
}

}  // namespace
}  // namespace orvane
