#include "libvirt_backend/virsh_libvirt_backend.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "conversion/errors.h"
#include "progress/progress_observer.h"
#include "support/fake_tools.h"

namespace orvane {
namespace {

using testing::FakeTools;
using testing::readFile;
using testing::writeFile;
using Argv = std::vector<std::string>;

TEST(ExtractPoolPath, Table) {
  struct Case {
    const char* name;
    std::string xml;
    std::optional<std::string> path;
  };
  const Case cases[] = {
      {"inline", "<pool><target><path>/var/lib/libvirt/images</path></target></pool>",
       "/var/lib/libvirt/images"},
      {"own indented line",
       "<pool type='dir'>\n  <target>\n    <path>\n      /srv/images\n    </path>\n"
       "  </target>\n</pool>\n",
       "/srv/images"},
      {"blanks and CR trimmed", "<path> \t/a b/c\r\n</path>", "/a b/c"},
      {"first path wins", "<path>/one</path><path>/two</path>", "/one"},
      {"no open tag", "<pool><target></target></pool>", std::nullopt},
      {"no close tag", "<path>/var/lib/libvirt/images", std::nullopt},
      {"close only before open", "</path><path>/x", std::nullopt},
      {"close before open, then a pair", "</path><path>/x</path>", "/x"},
      {"empty element", "<path></path>", std::nullopt},
      {"blank element", "<path> \n\t </path>", std::nullopt},
      {"empty text", "", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(extractPoolPath(c.xml), c.path) << c.name;
  }
}

class FinishCounter : public ProgressObserver {
 public:
  void onFinish() override { ++finishes; }
  int finishes = 0;
};

/// A recording fake virsh that prints `out` and exits with `exitCode`.
void addVirsh(FakeTools& tools, const std::string& out, int exitCode) {
  writeFile(tools.dir() + "/virsh.out", out);
  tools.addRecording(
      "virsh", "cat '" + tools.dir() + "/virsh.out'\nexit " + std::to_string(exitCode));
}

TEST(VirshLibvirtBackend, CommandLines) {
  struct Case {
    const char* name;
    std::function<void(VirshLibvirtBackend&)> call;
    Argv argv;
  };
  FinishCounter progress;
  const Case cases[] = {
      {"isReachable", [](auto& b) { b.isReachable(); }, {"version"}},
      {"networkDefined",
       [](auto& b) { b.networkDefined("my net"); },
       {"net-info", "my net"}},
      {"networkActive",
       [](auto& b) { b.networkActive("default"); },
       {"net-list", "--name"}},
      {"defaultPoolPath",
       [](auto& b) { b.defaultPoolPath(); },
       {"pool-dumpxml", "default"}},
      {"domainExists", [](auto& b) { b.domainExists("web 01"); }, {"dominfo", "web 01"}},
      {"listDomains", [](auto& b) { b.listDomains(); }, {"list", "--all", "--name"}},
      {"dumpDomainXml", [](auto& b) { b.dumpDomainXml("web"); }, {"dumpxml", "web"}},
      {"undefineDomain",
       [](auto& b) { b.undefineDomain("web"); },
       {"undefine", "web", "--nvram"}},
      {"refreshPool",
       [&](auto& b) { b.refreshPool("default", &progress); },
       {"pool-refresh", "default"}},
  };
  for (const Case& c : cases) {
    FakeTools tools;
    addVirsh(tools, "", 0);
    VirshLibvirtBackend backend;
    c.call(backend);
    EXPECT_EQ(tools.calls("virsh"), std::vector<Argv>{c.argv}) << c.name;
  }
  EXPECT_EQ(progress.finishes, 1) << "refreshPool hands its observer to the runner";
}

TEST(VirshLibvirtBackend, ExitCodeAnswersQueries) {
  for (int exitCode : {0, 1, 127}) {
    FakeTools tools;
    addVirsh(tools, "", exitCode);
    VirshLibvirtBackend b;
    bool ok = exitCode == 0;
    EXPECT_EQ(b.isReachable(), ok) << exitCode;
    EXPECT_EQ(b.networkDefined("default"), ok) << exitCode;
    EXPECT_EQ(b.domainExists("web"), ok) << exitCode;
    EXPECT_EQ(b.refreshPool("default", nullptr), ok) << exitCode;
  }
}

TEST(VirshLibvirtBackend, NetworkActiveMatchesWholeLines) {
  struct Case {
    const char* name;
    std::string out;
    int exitCode;
    bool active;
  };
  const Case cases[] = {
      {"listed", "default\n\n", 0, true},
      {"among others", "lab\ndefault\nwan\n", 0, true},
      {"trailing blanks removed", "default  \t\r\n", 0, true},
      {"no final line feed", "lab\ndefault", 0, true},
      {"leading blanks kept", "  default\n", 0, false},
      {"prefix only", "default2\nmy-default\n", 0, false},
      {"empty", "", 0, false},
      {"listed but virsh failed", "default\n", 1, false},
  };
  for (const Case& c : cases) {
    FakeTools tools;
    addVirsh(tools, c.out, c.exitCode);
    EXPECT_EQ(VirshLibvirtBackend().networkActive("default"), c.active) << c.name;
  }
}

TEST(VirshLibvirtBackend, ListDomainsSplitsLines) {
  struct Case {
    const char* name;
    std::string out;
    int exitCode;
    std::vector<std::string> domains;
  };
  const Case cases[] = {
      {"names then empty line", "web\nmail\n\n", 0, {"web", "mail"}},
      {"trailing blanks removed, leading kept",
       "web  \r\n\n  db\t\nlast",
       0,
       {"web", "  db", "last"}},
      {"none", "\n", 0, {}},
      {"failure", "web\n", 1, {}},
  };
  for (const Case& c : cases) {
    FakeTools tools;
    addVirsh(tools, c.out, c.exitCode);
    EXPECT_EQ(VirshLibvirtBackend().listDomains(), c.domains) << c.name;
  }
}

TEST(VirshLibvirtBackend, DefaultPoolPath) {
  struct Case {
    const char* name;
    std::string out;
    int exitCode;
    std::optional<std::string> path;
  };
  const Case cases[] = {
      {"pool",
       "<pool type='dir'>\n  <target>\n    <path>/var/lib/libvirt/images</path>\n", 0,
       "/var/lib/libvirt/images"},
      {"virsh failed", "<path>/var/lib/libvirt/images</path>", 1, std::nullopt},
      {"empty output", "", 0, std::nullopt},
      {"no path", "<pool type='rbd'></pool>", 0, std::nullopt},
  };
  for (const Case& c : cases) {
    FakeTools tools;
    addVirsh(tools, c.out, c.exitCode);
    EXPECT_EQ(VirshLibvirtBackend().defaultPoolPath(), c.path) << c.name;
  }
}

TEST(VirshLibvirtBackend, DumpDomainXmlReturnsOutputWhateverTheExit) {
  for (int exitCode : {0, 1}) {
    FakeTools tools;
    addVirsh(tools, "<domain>\n  <name>web</name>\n</domain>\n", exitCode);
    EXPECT_EQ(VirshLibvirtBackend().dumpDomainXml("web"),
              "<domain>\n  <name>web</name>\n</domain>\n");
  }
}

// Names as libvirt allows them reach virsh as one word each, in one process.
TEST(VirshLibvirtBackend, AllDefinitionsInOneVirsh) {
  FakeTools tools;
  addVirsh(tools, "", 0);
  dumpBatchXml({"web 01", "it's", "-x;y", "caf\xc3\xa9"}, "N");
  const std::vector<Argv> expected = {
      {"echo orvane-N-0; dumpxml --domain 'web 01'; echo orvane-N-1; dumpxml --domain "
       "'it'\\''s'; echo orvane-N-2; dumpxml --domain '-x;y'; echo orvane-N-3; dumpxml "
       "--domain 'caf\xc3\xa9'; echo orvane-N-end"}};
  EXPECT_EQ(tools.calls("virsh"), expected);
}

// Only a definition whose closing marker arrived counts; the rest read as a failed
// dumpxml does: empty, so no MAC of theirs ever matches.
TEST(VirshLibvirtBackend, BatchOutputIsSplitAtTheMarkers) {
  struct Case {
    const char* name;
    std::string out;
    int exitCode;
    std::vector<std::string> xml;
  };
  const Case cases[] = {
      {"all read", "orvane-N-0<domain>a</domain>\norvane-N-1<domain>b</domain>\norvane-N-end",
       0, {"<domain>a</domain>\n", "<domain>b</domain>\n"}},
      {"one vanished", "orvane-N-0orvane-N-1<domain>b</domain>\norvane-N-end", 0,
       {"", "<domain>b</domain>\n"}},
      {"virsh fails mid-list", "orvane-N-0<domain>a</domain>\norvane-N-1<domain><mac address=",
       1, {"<domain>a</domain>\n", ""}},
      {"virsh fails at once", "", 1, {"", ""}},
  };
  for (const Case& c : cases) {
    FakeTools tools;
    addVirsh(tools, c.out, c.exitCode);
    std::vector<std::pair<std::string, std::string>> expected = {{"a", c.xml[0]},
                                                                 {"b", c.xml[1]}};
    EXPECT_EQ(dumpBatchXml({"a", "b"}, "N"), expected) << c.name;
  }
}

TEST(VirshLibvirtBackend, UndefineFallsBackToPlainFormOnce) {
  struct Case {
    const char* name;
    std::string body;
    std::vector<Argv> calls;
  };
  const Case cases[] = {
      {"nvram accepted", "exit 0", {{"undefine", "web", "--nvram"}}},
      {"nvram refused",
       "[ \"$3\" = --nvram ] && exit 1; exit 0",
       {{"undefine", "web", "--nvram"}, {"undefine", "web"}}},
      {"both fail, no third try",
       "exit 1",
       {{"undefine", "web", "--nvram"}, {"undefine", "web"}}},
  };
  for (const Case& c : cases) {
    FakeTools tools;
    tools.addRecording("virsh", c.body);
    VirshLibvirtBackend().undefineDomain("web");
    EXPECT_EQ(tools.calls("virsh"), c.calls) << c.name;
  }
}

/// The temp XML files that hold `marker`: other tests may be defining domains
/// at the same time, so only this test's own content counts.
std::vector<std::string> tempXmlFilesHolding(const std::string& marker) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    std::string name = entry.path().filename().string();
    if (name.rfind("orvane-v2v-domain-", 0) != 0) continue;
    if (readFile(entry.path().string()).find(marker) != std::string::npos) {
      found.push_back(entry.path().string());
    }
  }
  return found;
}

class DefineDomain : public ::testing::TestWithParam<int> {};

// virsh sees the whole XML in a file of the documented name, and that file is gone
// afterwards, whether virsh accepted it or not.
TEST_P(DefineDomain, HandsXmlInTempFileAndRemovesIt) {
  const int exitCode = GetParam();
  FakeTools tools;
  const std::string copy = tools.dir() + "/defined.xml";
  tools.addRecording("virsh", "cp \"$2\" '" + copy +
                                  "'\necho \"error: failed to define domain\" >&2\n"
                                  "echo 'error: line two' >&2\nexit " +
                                  std::to_string(exitCode));
  const std::string marker =
      "web-" + std::to_string(getpid()) + "-" + std::to_string(exitCode);
  const std::string xml =
      "<domain type='kvm'>\n  <name>" + marker + "</name>\n</domain>\n";
  FinishCounter progress;

  bool threw = false;
  try {
    VirshLibvirtBackend().defineDomain(xml, &progress);
  } catch (const V2vError& e) {
    threw = true;
    EXPECT_STREQ(e.what(), "error: failed to define domain\nerror: line two\n");
    EXPECT_EQ(e.stage(), "");
    EXPECT_FALSE(e.alreadyReported());
  }
  EXPECT_EQ(threw, exitCode != 0);

  std::vector<Argv> calls = tools.calls("virsh");
  ASSERT_EQ(calls.size(), 1u);
  ASSERT_EQ(calls[0].size(), 2u);
  EXPECT_EQ(calls[0][0], "define");
  EXPECT_EQ(calls[0][1].rfind("/tmp/orvane-v2v-domain-", 0), 0u) << calls[0][1];
  EXPECT_EQ(calls[0][1].size(), std::string("/tmp/orvane-v2v-domain-XXXXXX").size());
  EXPECT_EQ(readFile(copy), xml);
  EXPECT_FALSE(std::filesystem::exists(calls[0][1]));
  EXPECT_EQ(tempXmlFilesHolding(marker), std::vector<std::string>{});
  EXPECT_EQ(progress.finishes, 1);
}

INSTANTIATE_TEST_SUITE_P(ExitCodes, DefineDomain, ::testing::Values(0, 1));

}  // namespace
}  // namespace orvane
