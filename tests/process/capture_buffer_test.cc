#include "process/capture_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvane {
namespace {

std::string pattern(std::size_t size, char seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + i % 61);
  return bytes;
}

TEST(AppendCaptured, KeepsEveryByteInOrderAcrossTheLargeTextThreshold) {
  const struct {
    const char* name;
    std::vector<std::size_t> chunks;
  } cases[] = {
      {"small", {1, 4096, 7}},
      {"4 KiB reads past 4 MiB", std::vector<std::size_t>(1100, 4096)},
      {"one chunk lands exactly on 4 MiB", {(4u << 20) - 10, 10, 1}},
      {"one chunk jumps far past", {100, 9u << 20, 4096}},
      {"empty chunks", {0, 5u << 20, 0, 3}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string captured, expected;
    char seed = 'A';
    for (std::size_t size : c.chunks) {
      const std::string chunk = pattern(size, seed++);
      appendCaptured(captured, chunk);
      expected += chunk;
    }
    ASSERT_EQ(expected.size(), captured.size());
    EXPECT_TRUE(expected == captured);
  }
}

TEST(AppendCaptured, GrowsGeometrically) {
  // 32 MiB in 4 KiB reads: a handful of reallocations, not one per read.
  std::string captured;
  const std::string chunk(4096, 'x');
  std::size_t reallocations = 0;
  for (int i = 0; i < 8192; ++i) {
    const std::size_t capacity = captured.capacity();
    appendCaptured(captured, chunk);
    if (captured.capacity() != capacity) ++reallocations;
  }
  EXPECT_EQ(std::size_t{32} << 20, captured.size());
  EXPECT_LE(reallocations, 30u);
}

}  // namespace
}  // namespace orvane
