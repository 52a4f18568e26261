// A JSON plugin description, read by JSONPlugin::Load as the loader reads a
// plugin file, into a registry of its own.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "FuzzSupport.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/plugins/JSONPlugin.h"

namespace {

// What a description that loaded must have given, whatever it held.
void CheckLoaded(const orvane::JSONPlugin& plugin) {
  const std::int32_t version = plugin.GetApiVersion();
  fuzzing::Check(version >= 1 && version <= 4, "a loaded plugin has an API version of 1 to 4");
  if (version < 2) {
    fuzzing::Check(!plugin.SupportsHostProfile() && plugin.HostProfileCommands().empty(),
                   "version 1 has no host-profile operation");
  }
  if (version < 3) {
    fuzzing::Check(plugin.GetRequiredFlags().empty() && plugin.GetDisablingFlags().empty() &&
                       !plugin.IsRunOnce() && plugin.GetPluginVersion().empty(),
                   "versions 1 and 2 take no flags, run-once or plugin version");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzzing::MemoryFile description("plugin.json");
  description.Replace(data, size);
  // Declared first, so that the plugin goes before the barriers it is linked to.
  orvane::BarrierRegistry registry;
  try {
    const std::unique_ptr<orvane::JSONPlugin> plugin =
        orvane::JSONPlugin::Load("fuzzed", description.Path(), registry);
    CheckLoaded(*plugin);
  } catch (const orvane::Exception&) {
    // A refused description: the loader logs it and leaves the plugin out.
  }
  return 0;
}
