#include "process/capture_buffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace orvane {
namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;
// Below this a capture is a command's ordinary chatter: plain appends are cheapest.
constexpr std::size_t kAdviseFrom = std::size_t{4} << 20;
// Every byte copied on a reallocation lands on pages the kernel must zero first, so
// the capacity grows fourfold (a third of the output copied in all, against all of
// it when doubling). Capacity never touched costs nothing; the cap keeps the
// reservation of a huge output within reach of the memory overcommit check.
constexpr std::size_t kGrowthFactor = 4;
constexpr std::size_t kMaxGrowthStep = std::size_t{1} << 30;

// Advice only: a kernel without transparent huge pages refuses it and nothing
// changes, so the result is not checked.
void adviseHugePages(std::string& text) {
#ifdef MADV_HUGEPAGE
  const auto start = reinterpret_cast<std::uintptr_t>(text.data());
  const std::uintptr_t begin = (start + kHugePage - 1) & ~(kHugePage - 1);
  const std::uintptr_t end = (start + text.capacity()) & ~(kHugePage - 1);
  if (end > begin) {
    ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
  }
#else
  (void)text;
#endif
}

}  // namespace

void appendCaptured(std::string& text, std::string_view bytes) {
  const std::size_t needed = text.size() + bytes.size();
  if (needed > text.capacity() && needed > kAdviseFrom) {
    // reserve() on `text` would copy into the new block before we could advise it,
    // faulting it in small pages; so build the bigger string fresh and swap.
    std::string bigger;
    const std::size_t step =
        std::min((kGrowthFactor - 1) * text.capacity(), kMaxGrowthStep);
    bigger.reserve(std::max(needed, text.capacity() + step));
    adviseHugePages(bigger);
    bigger.append(text);
    text.swap(bigger);
  }
  text.append(bytes);
}

}  // namespace orvane
