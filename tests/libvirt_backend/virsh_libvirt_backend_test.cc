// Each call of the virsh backend against a recording fake virsh (data/calls.txt): the
// command lines it ran and what it answered.
#include "libvirt_backend/virsh_libvirt_backend.h"

#include <filesystem>
#include <regex>

#include "support/tables.h"

namespace orvane::testing {
namespace {

std::string text(bool b) { return b ? "true" : "false"; }
std::string text(const std::vector<std::pair<std::string, std::string>>& xmls) {
  std::vector<std::string> out;
  for (const auto& [name, xml] : xmls) out.push_back(name + "=" + xml);
  return joined(out);
}

/// What the call answered, as text, or the error it threw.
std::string answer(const Case& c, RecordingProgress& progress) try {
  VirshLibvirtBackend virsh;
  const std::string call = c["call"], arg = c["arg"];
  if (call == "isReachable") return text(virsh.isReachable());
  if (call == "networkDefined") return text(virsh.networkDefined(arg));
  if (call == "networkActive") return text(virsh.networkActive(arg));
  if (call == "domainExists") return text(virsh.domainExists(arg));
  if (call == "refreshPool") return text(virsh.refreshPool(arg, &progress));
  if (call == "defaultPoolPath") return virsh.defaultPoolPath().value_or("none");
  if (call == "extractPoolPath") return extractPoolPath(arg).value_or("none");
  if (call == "listDomains") return joined(virsh.listDomains());
  if (call == "dumpDomainXml") return virsh.dumpDomainXml(arg);
  if (call == "dumpBatchXml") return text(dumpBatchXml(c.all("arg"), "N"));
  if (call == "dumpAllDomainXml") return text(virsh.dumpAllDomainXml());
  if (call == "undefineDomain") virsh.undefineDomain(arg);
  if (call == "defineDomain") virsh.defineDomain(arg, &progress);
  return "";
} catch (const V2vError& e) {
  return std::string("error: ") + e.what();
}

TEST(VirshLibvirtBackend, EachCallRunsAndAnswersAsExpected) {
  for (const Case& c :
       readCases(ORVANE_SOURCE_DIR "/tests/libvirt_backend/data/calls.txt")) {
    FakeTools tools;
    writeFile(tools.dir() + "/out", c["out"]);
    tools.addRecording("virsh", "d=" + tools.dir() + "\n" +
                                    (c["script"].empty() ? "cat $d/out\nexit " + c["exit"]
                                                         : c["script"]));
    RecordingProgress progress;
    std::string got = "result: " + answer(c, progress) + "\n";
    for (std::vector<std::string> call : tools.calls("virsh")) {
      // The define's file is made afresh each time, and must be gone afterwards.
      EXPECT_FALSE(call[0] == "define" && std::filesystem::exists(call[1])) << c.name;
      for (std::string& word : call)
        if (word.find(' ') != std::string::npos) word = "'" + word + "'";
      got += "argv: " + joined(call, " ") + "\n";
    }
    if (progress.finishes != 0)
      got += "finishes: " + std::to_string(progress.finishes) + "\n";
    if (!c["handed"].empty())
      got += "handed: " + readFile(tools.dir() + "/handed") + "\n";
    got = std::regex_replace(got, std::regex("orvane-[0-9a-f]{16}-"), "orvane-NONCE-");
    got = std::regex_replace(got, std::regex("domain-\\w{6}\n"), "domain-XXXXXX\n");
    EXPECT_EQ(got, c.text({"result", "argv", "finishes", "handed"})) << c.name;
  }
}

}  // namespace
}  // namespace orvane::testing
