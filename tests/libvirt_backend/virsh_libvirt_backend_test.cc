// Each call of the virsh backend against a recording fake virsh that prints a given
// output and exits with a given code: the command lines it ran and what it answered.
#include "libvirt_backend/virsh_libvirt_backend.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "conversion/errors.h"
#include "support/fake_tools.h"
#include "vmx/test_tables.h"

namespace orvane::testing {
namespace {

/// What the call answered, as text; "" for a call that answers nothing.
std::string answer(VirshLibvirtBackend& virsh, const std::string& call,
                   const std::vector<std::string>& args, RecordingProgress& progress) {
  const std::string arg = args.empty() ? "" : args[0];
  const auto flag = [](bool b) { return std::string(b ? "true" : "false"); };
  const auto optional = [](const std::optional<std::string>& s) {
    return s ? *s : "none";
  };
  if (call == "isReachable") return flag(virsh.isReachable());
  if (call == "networkDefined") return flag(virsh.networkDefined(arg));
  if (call == "networkActive") return flag(virsh.networkActive(arg));
  if (call == "domainExists") return flag(virsh.domainExists(arg));
  if (call == "refreshPool") return flag(virsh.refreshPool(arg, &progress));
  if (call == "defaultPoolPath") return optional(virsh.defaultPoolPath());
  if (call == "extractPoolPath") return optional(extractPoolPath(arg));
  if (call == "listDomains") return joined(virsh.listDomains());
  if (call == "dumpDomainXml") return virsh.dumpDomainXml(arg);
  if (call == "undefineDomain") virsh.undefineDomain(arg);
  if (call == "dumpBatchXml") {
    std::vector<std::string> xml;
    for (const auto& [name, text] : dumpBatchXml(args, "N"))
      xml.push_back(name + "=" + text);
    return joined(xml);
  }
  if (call == "defineDomain") {
    try {
      virsh.defineDomain(arg, &progress);
    } catch (const V2vError& e) {
      return std::string("error: ") + e.what();
    }
    return "defined";
  }
  return "";
}

TEST(VirshLibvirtBackend, EachCallRunsAndAnswersAsExpected) {
  for (const Case& c : readCases(std::string(ORVANE_SOURCE_DIR) +
                                 "/tests/libvirt_backend/data/calls.txt")) {
    SCOPED_TRACE(c.name);
    FakeTools tools;
    writeFile(tools.dir() + "/out", c["out"]);
    tools.addRecording(
        "virsh", "d=$(dirname \"$0\")\n" +
                     (c.has("script")
                          ? c["script"]
                          : "cat \"$d/out\"\nexit " + (c.has("exit") ? c["exit"] : "0")));
    VirshLibvirtBackend virsh;
    RecordingProgress progress;
    std::string got =
        "result: " + answer(virsh, c["call"], c.all("arg"), progress) + "\n";
    for (const std::vector<std::string>& call : tools.calls("virsh")) {
      got += "argv:";
      for (std::string word : call) {
        // The define's file is made afresh each time, and must be gone afterwards.
        if (word.rfind("/tmp/orvane-v2v-domain-", 0) == 0 && word.size() == 29) {
          EXPECT_FALSE(std::filesystem::exists(word));
          word = "/tmp/orvane-v2v-domain-XXXXXX";
        }
        got += word.find(' ') == std::string::npos && !word.empty() ? " " + word
                                                                    : " '" + word + "'";
      }
      got += "\n";
    }
    if (progress.finishes != 0)
      got += "finishes: " + std::to_string(progress.finishes) + "\n";
    if (c.has("handed")) got += "handed: " + readFile(tools.dir() + "/handed") + "\n";
    EXPECT_EQ(got, c.text({"result", "argv", "finishes", "handed"}));
  }
}

}  // namespace
}  // namespace orvane::testing
