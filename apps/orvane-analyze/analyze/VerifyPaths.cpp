#include "analyze/VerifyPaths.h"

#include <utility>

#include "orvane/FixedPaths.h"

namespace orvane::analyze {

VerifyPaths::VerifyPaths(std::string root) : root_(std::move(root)), prefix_(root_) {
  // The host paths begin with "/", so the root must not end with one:
  // "tree/" and "tree" name the same root, and "/" is no prefix at all.
  while (!prefix_.empty() && prefix_.back() == '/') {
    prefix_.pop_back();
  }
}

std::string VerifyPaths::Under(const std::string& hostPath) const { return prefix_ + hostPath; }

std::string VerifyPaths::PluginDirectory() const { return Under(paths::kPluginDirectory); }

std::string VerifyPaths::DebugConfiguration() const { return Under(paths::kDebugConfiguration); }

}  // namespace orvane::analyze
