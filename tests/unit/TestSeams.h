// The places where a unit test puts something of its own in for a
// process-wide sink or source, each as an object that holds the replacement
// for the life of its scope and puts the default back when the scope ends,
// even when an assertion ends the test early. The replaceable functions are
// declared in the layer they belong to; this is the one place the tests
// reach them from. Make and end each while no other thread uses what it
// replaces.
//
// Seams that need no scope: a fake spawner (FakeSpawner.h) takes the
// place of the process-wide one for its own lifetime, through
// ScopedSpawner; a test's subclass of JSONPlugin overrides SendCommand;
// an Executor is given a ThreadStarter when it is made.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "ZelkuserCompat/Spawn.h"
#include "orvaner/Logging.h"
#include "orvaner/SystemAlert.h"
#include "orvaner/plugins/DaemonCommandRunner.h"
#include "orvaner/plugins/HostProfile.h"
#include "orvaner/plugins/InteractiveConsole.h"
#include "process/Spawner.h"

namespace unit_testing {

/// Hands @p Replace the replacement for the life of the scope, then an
/// empty one, which puts the default back.
template <typename Replacement, void (*Replace)(Replacement)>
class ScopedReplacement {
 public:
  explicit ScopedReplacement(Replacement replacement) { Replace(std::move(replacement)); }
  ~ScopedReplacement() { Replace(Replacement{}); }
  ScopedReplacement(const ScopedReplacement&) = delete;
  ScopedReplacement& operator=(const ScopedReplacement&) = delete;
};

/// LogAlert's lines go to the sink instead of the kernel log.
using ScopedAlertLogSink =
    ScopedReplacement<std::function<void(const std::string&)>, &orvane::ReplaceAlertLogSink>;

/// System alerts go to the sink instead of the host service.
using ScopedSystemAlertSink =
    ScopedReplacement<std::function<void(const std::string&)>, &orvane::ReplaceSystemAlertSink>;

/// The daemon command runner pauses between its polls with the given pause
/// instead of waiting on the command's exit watch.
using ScopedDaemonCommandPause =
    ScopedReplacement<orvane::DaemonCommandPause, &orvane::ReplaceDaemonCommandPause>;

/// Activation prompts the given console instead of the machine's, which
/// the caller keeps alive as long as the scope.
using ScopedActivationConsole =
    ScopedReplacement<orvane::InteractiveConsole*, &orvane::ReplaceActivationConsole>;

/// Whether the host has a host profile is asked afresh, of @p profile and
/// @p compressedProfile instead of the host's files; when the scope ends the
/// answer is forgotten again and the host's files are back.
class ScopedHostProfileFiles {
 public:
  ScopedHostProfileFiles(std::string profile, std::string compressedProfile) {
    orvane::ResetHostProfileCheck(std::move(profile), std::move(compressedProfile));
  }
  ~ScopedHostProfileFiles() { orvane::ResetHostProfileCheck(); }
  ScopedHostProfileFiles(const ScopedHostProfileFiles&) = delete;
  ScopedHostProfileFiles& operator=(const ScopedHostProfileFiles&) = delete;
};

/// The next @p call of the user-space spawn library fails with @p status
/// without doing anything; a failure no call has taken by the end of the
/// scope is withdrawn.
class ScopedSpawnCallFailure {
 public:
  ScopedSpawnCallFailure(ZelkuserCompat_Call call, ZelkuserStatus status) : call_(call) {
    ZelkuserCompat_InjectFailure(call, status);
  }
  ~ScopedSpawnCallFailure() { ZelkuserCompat_InjectFailure(call_, ZELKUSER_OK); }
  ScopedSpawnCallFailure(const ScopedSpawnCallFailure&) = delete;
  ScopedSpawnCallFailure& operator=(const ScopedSpawnCallFailure&) = delete;

 private:
  ZelkuserCompat_Call call_;
};

/// Another spawner in the place of the process-wide one; the one before it
/// is back when the scope ends.
using ScopedSpawner = process::ScopedSpawner;

}  // namespace unit_testing
