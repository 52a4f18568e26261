#include "orvaner/SystemAlert.h"

#include <utility>

#include "ZelkCtl/SystemInfoImpl.h"

namespace orvane {
namespace {

std::function<void(const std::string&)>& ReplacementSink() {
  static std::function<void(const std::string&)> sink;
  return sink;
}

}  // namespace

void RaiseSystemAlert(const std::string& text) {
  if (const auto& sink = ReplacementSink()) {
    sink(text);
    return;
  }
  ZelkCtl::System::SystemInfoImpl systemInfo;
  systemInfo.SetSystemAlert(text);
}

void ReplaceSystemAlertSink(std::function<void(const std::string&)> sink) {
  ReplacementSink() = std::move(sink);
}

}  // namespace orvane
