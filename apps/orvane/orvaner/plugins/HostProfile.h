/// Whether this host has a host profile to apply at boot.
#pragma once

#include <string>

namespace orvane {

/// True when the host profile or its compressed form exists. The files are
/// looked at once per process, by the first caller, under the graph lock;
/// every later call returns the same answer even if the files change.
/// A file whose status cannot be read counts as absent. Never throws.
bool HostProfilePresent();

/// Forgets the answer, so that the next HostProfilePresent looks again, at
/// @p profile and @p compressedProfile instead of the host's fixed paths.
/// Called without arguments it goes back to the fixed paths. For tests,
/// which must not create the host's profile files.
void ResetHostProfileCheck(std::string profile = {}, std::string compressedProfile = {});

}  // namespace orvane
