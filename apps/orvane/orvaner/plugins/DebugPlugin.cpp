#include "orvaner/plugins/DebugPlugin.h"

#include <utility>

#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Node.h"
#include "process/Spawner.h"

namespace orvane {

DebugPlugin::DebugPlugin(std::string name, const std::vector<std::string>& requiredBarriers,
                         const std::vector<std::string>& providedBarriers, std::string command,
                         BarrierRegistry& registry)
    : Plugin(std::move(name)), command_(std::move(command)) {
  for (const std::string& barrier : requiredBarriers) {
    Requires(*registry.GetBarrier(barrier, true));
  }
  for (const std::string& barrier : providedBarriers) {
    Provides(*registry.GetBarrier(barrier, true));
  }
}

void DebugPlugin::Start() {
  const process::ExitStatus status = process::Spawner::Instance().RunShellCommand(command_);
  if (status.Succeeded()) {
    return;
  }
  // The raw status word, not the exit code: exit 1 shows as 0x000100, a
  // shell that could not be run or collected as 0xffffffff. An injection
  // must not change the outcome of the boot, so nothing is thrown.
  Log_Level(LOG_LEVEL_INFO, "debug injection '%s' returned %#08x\n", Name().c_str(),
            static_cast<unsigned>(status.WaitStatus()));
}

void DebugPlugin::ApplyHostProfile() {
  throw NotImplementedException("DebugPlugin::ApplyHostProfile");
}

}  // namespace orvane
