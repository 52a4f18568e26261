#include "orvaner/plugins/LegacyDaemonPlugin.h"

#include <utility>

#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/PriorityBarrier.h"

namespace orvane {

LegacyDaemonPlugin::LegacyDaemonPlugin(std::string name, const std::string& script,
                                       std::int32_t startOrder, BarrierRegistry& registry)
    : DaemonPlugin(std::move(name), startOrder), script_(script) {
  GraphLockGuard lock;
  // A negative start order lands where its bit pattern sorts, as on the host.
  PriorityBarrier& level = registry.GetPriorityBarrier(static_cast<std::uint32_t>(startOrder));
  SetOperation(kStartOperation, script + " start");
  SetOperation(kStopOperation, script + " stop");
  level.AddMember(*this);
}

void LegacyDaemonPlugin::ApplyHostProfile() {
  throw NotImplementedException("LegacyDaemonPlugin::ApplyHostProfile");
}

}  // namespace orvane
