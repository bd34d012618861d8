#include "process/capture_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvane {
namespace {

/// `size` bytes of a 251-periodic pattern starting at phase `phase`, so that a byte
/// dropped, doubled or moved shows up as a mismatch.
std::string pattern(std::size_t size, std::size_t phase) {
  static const std::string source = [] {
    std::string bytes((std::size_t{7} << 20) + 251, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i % 251);
    return bytes;
  }();
  return source.substr(phase % 251, size);
}

TEST(AppendCaptured, KeepsEveryByteInOrderAcrossTheLargeTextThreshold) {
  const struct {
    const char* name;
    std::vector<std::size_t> chunks;
  } cases[] = {
      {"small", {1, 4096, 7}},
      {"4 KiB reads past 4 MiB", std::vector<std::size_t>(1100, 4096)},
      {"one chunk lands exactly on 4 MiB", {0, (4u << 20) - 10, 10, 0, 1}},
      {"one chunk jumps far past", {100, 6u << 20, 0, 4096}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string captured, expected;
    std::size_t phase = 0;
    for (std::size_t size : c.chunks) {
      const std::string chunk = pattern(size, phase += 7);
      appendCaptured(captured, chunk);
      expected += chunk;
    }
    ASSERT_EQ(expected.size(), captured.size());
    EXPECT_TRUE(expected == captured);
  }
}

TEST(AppendCaptured, GrowsGeometrically) {
  // 16 MiB in 4 KiB reads: a handful of reallocations, not one per read.
  std::string captured;
  const std::string chunk(4096, 'x');
  std::size_t reallocations = 0;
  for (int i = 0; i < 4096; ++i) {
    const std::size_t capacity = captured.capacity();
    appendCaptured(captured, chunk);
    if (captured.capacity() != capacity) ++reallocations;
  }
  EXPECT_EQ(std::size_t{16} << 20, captured.size());
  EXPECT_LE(reallocations, 30u);
}

}  // namespace
}  // namespace orvane
