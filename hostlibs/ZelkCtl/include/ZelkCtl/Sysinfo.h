/// Nodes of the host's system-information tree.
#pragma once

#include <string>
#include <vector>

namespace ZelkCtl::Util {

/// One node of the system-information tree, opened for writing. Inputs are
/// collected with AddInput and written together by Set. On Linux the only
/// node is the kernel system log: each input becomes one kernel-log record.
class Sysinfo {
 public:
  enum class Node { KernelLog };

  explicit Sysinfo(Node node);
  Sysinfo(const Sysinfo&) = delete;
  Sysinfo& operator=(const Sysinfo&) = delete;

  void AddInput(std::string value);
  /// Writes the inputs to the node; throws HostCtl::Lib::HostCtlException
  /// when the node cannot take them.
  void Set();

 private:
  Node node_;
  std::vector<std::string> inputs_;
};

}  // namespace ZelkCtl::Util
