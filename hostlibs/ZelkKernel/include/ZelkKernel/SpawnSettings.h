// posix_spawn's attributes and file actions as one object that releases
// them on every way out; used by the daemon spawn here and by the process
// library's spawner.
#pragma once

#include <spawn.h>

namespace ZelkKernel {

class SpawnSettings {
 public:
  SpawnSettings() {
    attributesError_ = posix_spawnattr_init(&attributes_);
    actionsError_ = posix_spawn_file_actions_init(&actions_);
  }
  ~SpawnSettings() {
    if (attributesError_ == 0) posix_spawnattr_destroy(&attributes_);
    if (actionsError_ == 0) posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  /// 0 when both were set up, else the first error.
  int InitError() const { return attributesError_ != 0 ? attributesError_ : actionsError_; }
  posix_spawnattr_t* Attributes() { return &attributes_; }
  posix_spawn_file_actions_t* Actions() { return &actions_; }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
  int attributesError_;
  int actionsError_;
};

}  // namespace ZelkKernel
