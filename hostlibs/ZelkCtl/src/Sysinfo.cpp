#include "ZelkCtl/Sysinfo.h"

#include <utility>

#include "KernelLog.h"

namespace ZelkCtl::Util {

Sysinfo::Sysinfo(Node node) : node_(node) {}

void Sysinfo::AddInput(std::string value) { inputs_.push_back(std::move(value)); }

void Sysinfo::Set() {
  switch (node_) {
    case Node::KernelLog:
      for (const std::string& input : inputs_) {
        detail::WriteKernelLogRecord(detail::KernelLogPriority::Info, input);
      }
      break;
  }
}

}  // namespace ZelkCtl::Util
