// The ESP probe's readers on guestfish's answers, then the fix and the prediction of
// each case of data/sessions.txt against a fake guestfish that answers like the real one.
#include "boot_fixer/guestfish_boot_fixer.h"

#include <signal.h>

#include <chrono>

#include "boot_fixer/esp_probe.h"
#include "support/tables.h"

namespace orvane::testing {
namespace {

const std::string kData = ORVANE_SOURCE_DIR "/tests/boot_fixer/data";

TEST(EspProbe, EachAnswerReadsAsExpected) {
  const char* kinds[] = {"present", "copy", "none"};
  for (const std::vector<std::string>& row : readRows(kData + "/probe.tsv")) {
    const EspDecision d = decideFromProbe(row[1]);
    std::string got = kinds[static_cast<int>(d.kind)] +
                      (d.source.empty() ? "" : " " + d.source) +
                      (d.extraGrub.empty() ? "" : " + " + d.extraGrub) +
                      (d.note.empty() ? "" : ": " + d.note);
    if (row[0] == "true") got = isTrueAnswer(row[1]) ? "yes" : "no";
    if (row[0] == "vfat") got = "[" + joined(parseVfatDevices(row[1]), " ") + "]";
    EXPECT_EQ(got, row.at(2)) << row[0] << " " << row[1];
  }
}

// It reads a line at a time; is-dir is true only for the case's ESP mounted read-only;
// a failed command without "-" ends it; "hang" starts an appliance deaf to SIGTERM.
// clang-format off
const char kFakeGuestfish[] = R"sh(d=$(dirname "$0")
if [ -s $d/hang ]; then (trap '' TERM; exec sleep 60) & echo $! > $d/appliance; fi
while IFS= read -r line; do
  [ -s $d/hang ] && sleep 60
  case "$line" in 'echo '*) ;; *) printf '%s\n' "$line" >> $d/held;; esac
  [ "$line" = "$(cat $d/die-at 2>/dev/null)" ] && kill -9 $$
  case "$line" in
    'echo '*) printf '%s\n' "${line#echo }";;
    list-filesystems) cat $d/listing; [ -s $d/listing-fails ] && exit 1;;
    -mount-ro*) mounted="${line#-mount-ro }";;
    -umount-all) mounted=;;
    -is-dir*) [ "$mounted" = "\"$(cat $d/esp)\" /" ] && echo true || echo false;;
    '-exists /EFI/BOOT/BOOTX64.EFI') sed -n 1p $d/probe;;
    '-exists /EFI/Microsoft/Boot/bootmgfw.efi') sed -n 2p $d/probe;;
    '-find /EFI') sed -n '3,$p' $d/probe;;
    cp*) [ -s $d/write-fails ] && exit 1;;
  esac
done)sh";
// clang-format on

TEST(GuestfishBootFixer, EachSessionGoesAsExpected) {
  const std::vector<std::string> disks = {"/i/my vm-sda.qcow2", "/i/my vm-sdb.qcow2"};
  const char* outcomes[] = {"applied", "no-esp", "error", "ambiguous"};
  for (const Case& c : readCases(kData + "/sessions.txt")) {
    for (const bool ro : {false, true}) {
      FakeTools tools;
      for (const auto& [key, value] : c.fields) writeFile(tools.dir() + "/" + key, value);
      tools.addRecording("guestfish", kFakeGuestfish);
      RecordingProgress progress;
      progress.stopAt = c["hang"].empty() ? 0 : 3;
      const auto started = std::chrono::steady_clock::now();
      GuestfishBootFixer fixer;
      const BootFixPrediction p =
          ro ? fixer.predictEfiFallback(disks, &progress, &progress.stop)
             : BootFixPrediction{
                   fixer.ensureEfiFallback(disks, &progress, &progress.stop), ""};
      EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
      EXPECT_EQ(std::string(ro ? "predict: " : "fix: ") +
                    outcomes[static_cast<int>(p.result.outcome)] +
                    (p.wouldCopyFrom.empty() ? "" : " " + p.wouldCopyFrom) +
                    (p.result.note.empty() ? "" : ": " + p.result.note) +
                    "\nsession: " + readFile(tools.dir() + "/held"),
                c.text({ro ? "predict" : "fix"}) + "session: " + c["session"] +
                    (ro ? "" : c["written"]))
          << c.name;
      EXPECT_EQ(tools.calls("guestfish"),
                (std::vector<std::vector<std::string>>{
                    {ro ? "--ro" : "--rw", "-a", disks[0], "-a", disks[1]}}));
      EXPECT_EQ(progress.finishes, 1) << c.name;
      // The appliance of a stopped guestfish must not outlive the fixer.
      const std::string appliance = readFile(tools.dir() + "/appliance");
      EXPECT_TRUE(appliance.empty() || ::kill(std::stoi(appliance), 0) == -1);
    }
  }
}

}  // namespace
}  // namespace orvane::testing
