// Capture throughput of runCommand against a plain pipe read of the same bytes.
//
// The runner reads at most 64 KiB per poll wake-up and keeps everything in
// memory; the baseline is the shell piping the same stream into cat, which reads
// in large blocks and discards them. Besides wall-clock speed it prints the CPU
// time spent by this process and by the children, which is steadier than wall time
// on a shared machine. Prints numbers only; asserts nothing.
//
// Usage: runner_bench [MiB per run, default 1024] [repetitions, default 3]

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "process/command_runner.h"
#include "progress/progress_observer.h"

namespace {

using Clock = std::chrono::steady_clock;

double cpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Sample {
  double wall = 1e30;      // seconds
  double selfCpu = 1e30;   // seconds of this process
  double childCpu = 1e30;  // seconds of the children (the shell, head and cat)
};

void keepBest(Sample& best, const Sample& sample) {
  if (sample.wall < best.wall) best.wall = sample.wall;
  if (sample.selfCpu < best.selfCpu) best.selfCpu = sample.selfCpu;
  if (sample.childCpu < best.childCpu) best.childCpu = sample.childCpu;
}

/// Counts chunks, as the cheapest real observer touches each one.
class CountingObserver : public orvane::ProgressObserver {
 public:
  void onOutput(std::string_view chunk) override { bytes_ += chunk.size(); }
  std::size_t bytes_ = 0;
};

Sample measure(const std::vector<std::string>& argv, orvane::ProgressObserver* observer,
               std::size_t expectedBytes) {
  orvane::CommandOptions options;
  options.progress = observer;
  const double self0 = cpuSeconds(RUSAGE_SELF);
  const double children0 = cpuSeconds(RUSAGE_CHILDREN);
  const Clock::time_point start = Clock::now();
  orvane::CommandResult result = orvane::runCommand(argv, options);
  const std::chrono::duration<double> elapsed = Clock::now() - start;
  Sample sample;
  sample.wall = elapsed.count();
  sample.selfCpu = cpuSeconds(RUSAGE_SELF) - self0;
  sample.childCpu = cpuSeconds(RUSAGE_CHILDREN) - children0;
  if (result.exitCode != 0 || result.stdoutText.size() != expectedBytes) {
    std::fprintf(stderr, "unexpected result: exit %d, %zu bytes\n", result.exitCode,
                 result.stdoutText.size());
    std::exit(1);
  }
  return sample;
}

void report(const char* name, const Sample& best, double megabytes) {
  std::printf("%-38s %7.0f MB/s   cpu: self %6.2f s, children %6.2f s\n", name,
              megabytes / best.wall, best.selfCpu, best.childCpu);
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024;
  const int repetitions = argc > 2 ? std::atoi(argv[2]) : 3;
  const std::size_t bytes = mib << 20;
  const std::string count = std::to_string(bytes);
  const double megabytes = static_cast<double>(bytes) / 1e6;

  const std::vector<std::string> capture = {"head", "-c", count, "/dev/zero"};
  const std::vector<std::string> plain = {
      "sh", "-c", "head -c " + count + " /dev/zero | cat > /dev/null"};

  std::printf("%zu MiB per run, best of %d runs\n", mib, repetitions);
  Sample bestPlain, bestCapture, bestObserved;
  for (int i = 0; i < repetitions; ++i) {
    keepBest(bestPlain, measure(plain, nullptr, 0));
    keepBest(bestCapture, measure(capture, nullptr, bytes));
    CountingObserver observer;
    keepBest(bestObserved, measure(capture, &observer, bytes));
  }
  report("plain pipe (head | cat > /dev/null)", bestPlain, megabytes);
  report("runCommand capture", bestCapture, megabytes);
  report("runCommand capture + observer", bestObserved, megabytes);
  std::printf("capture / plain ratio (wall): %.2f\n", bestPlain.wall / bestCapture.wall);
  return 0;
}
