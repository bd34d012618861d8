#pragma once

#include <string_view>

namespace orvane {

/// How the command runner reports a child's output, ticks and completion. Every
/// notification does nothing by default, so an observer overrides what it needs.
class ProgressObserver {
 public:
  virtual ~ProgressObserver() = default;
  virtual void onOutput(std::string_view /*chunk*/) {}
  virtual void onTick() {}
  virtual void onFinish() {}
};

}  // namespace orvane
