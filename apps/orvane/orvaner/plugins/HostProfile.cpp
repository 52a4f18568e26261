#include "orvaner/plugins/HostProfile.h"

#include <sys/stat.h>

#include <utility>

#include "orvane/FixedPaths.h"
#include "orvaner/graph/GraphLock.h"

namespace orvane {
namespace {

/// The process-wide answer; every field is guarded by the graph lock.
struct HostProfileCheck {
  bool checked = false;
  bool present = false;
  std::string profile = paths::kHostProfile;
  std::string compressedProfile = paths::kHostProfileGz;
};

HostProfileCheck& Check() {
  static HostProfileCheck check;
  return check;
}

// Any failure of the status query, not only a missing file, means absent.
bool FileExists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

bool HostProfilePresent() {
  GraphLockGuard lock;
  HostProfileCheck& check = Check();
  if (!check.checked) {
    check.present = FileExists(check.profile) || FileExists(check.compressedProfile);
    check.checked = true;
  }
  return check.present;
}

void ResetHostProfileCheck(std::string profile, std::string compressedProfile) {
  GraphLockGuard lock;
  HostProfileCheck& check = Check();
  check.checked = false;
  check.present = false;
  check.profile = profile.empty() ? paths::kHostProfile : std::move(profile);
  check.compressedProfile =
      compressedProfile.empty() ? paths::kHostProfileGz : std::move(compressedProfile);
}

}  // namespace orvane
