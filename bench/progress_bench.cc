// Cost of QemuImgProgress::onOutput per chunk of qemu-img's "-p" output.
//
// qemu-img rewrites "    (NN.NN/100%)\r" in place; the runner hands such chunks
// over one at a time, sometimes split or batched. The display is given a pipe, so
// the numbers are for parsing and formatting only (a terminal adds one write per
// chunk). Prints numbers only; asserts nothing.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "progress/qemu_img_progress.h"
#include "progress/qemu_img_progress_text.h"

namespace {

std::vector<std::string> realisticChunks() {
  std::vector<std::string> chunks;
  for (int hundredths = 0; hundredths <= 10000; hundredths += 37) {
    char text[32];
    std::snprintf(text, sizeof text, "    (%d.%02d/100%%)\r", hundredths / 100,
                  hundredths % 100);
    chunks.emplace_back(text);
  }
  return chunks;
}

/// A sink that is not a terminal, so draw() returns before writing.
class Pipe {
 public:
  Pipe() { (void)::pipe(ends_); }
  ~Pipe() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  int writeEnd() const { return ends_[1]; }

 private:
  int ends_[2] = {-1, -1};
};

void BM_OnOutputOneUpdatePerChunk(benchmark::State& state) {
  const std::vector<std::string> chunks = realisticChunks();
  Pipe pipe;
  orvane::QemuImgProgress progress("  converting disk 1/1", pipe.writeEnd());
  std::size_t i = 0;
  for (auto _ : state) {
    progress.onOutput(chunks[i]);
    i = (i + 1) % chunks.size();
  }
  benchmark::DoNotOptimize(progress.lastPercent());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OnOutputOneUpdatePerChunk);

// The same updates split mid-number, as a read boundary can cut them.
void BM_OnOutputSplitUpdates(benchmark::State& state) {
  std::vector<std::string> halves;
  for (const std::string& chunk : realisticChunks()) {
    halves.push_back(chunk.substr(0, 7));
    halves.push_back(chunk.substr(7));
  }
  Pipe pipe;
  orvane::QemuImgProgress progress("  converting disk 1/1", pipe.writeEnd());
  std::size_t i = 0;
  for (auto _ : state) {
    progress.onOutput(halves[i]);
    i = (i + 1) % halves.size();
  }
  benchmark::DoNotOptimize(progress.lastPercent());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OnOutputSplitUpdates);

// A 4 KiB chunk holding many updates: the scan from the end and the 256-byte cap
// keep this close to the single-update cost.
void BM_OnOutputBatchedUpdates(benchmark::State& state) {
  std::string batch;
  for (const std::string& chunk : realisticChunks()) {
    if (batch.size() + chunk.size() > 4096) break;
    batch += chunk;
  }
  Pipe pipe;
  orvane::QemuImgProgress progress("  converting disk 1/1", pipe.writeEnd());
  for (auto _ : state) progress.onOutput(batch);
  benchmark::DoNotOptimize(progress.lastPercent());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(batch.size()));
}
BENCHMARK(BM_OnOutputBatchedUpdates);

void BM_FormatLine(benchmark::State& state) {
  const std::string label = "  converting disk 1/1";
  double percent = 0;
  std::size_t frame = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(orvane::formatQemuImgLine(label, percent, frame++));
    percent = percent >= 100 ? 0 : percent + 0.37;
  }
}
BENCHMARK(BM_FormatLine);

}  // namespace

BENCHMARK_MAIN();
