#include "orvaner/graph/InitBarrier.h"

#include <utility>

#include "log/Log.h"
#include "orvaner/SystemAlert.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"

namespace orvane {

InitBarrier::InitBarrier(std::string name) : Node(std::move(name), kDefaultSchedulingClass) {}

void InitBarrier::Execute(Executor& executor) {
  std::string text;
  {
    GraphLockGuard lock;
    if (!Predecessors().empty()) {
      return;
    }
    text = MissingProviderText();
  }
  if (executor.RaisesAlerts()) {
    RaiseSystemAlert(text);
  }
  Log_Level(LOG_LEVEL_WARNING, "%s\n", text.c_str());
}

std::string InitBarrier::DotAttributes() { return " shape=box"; }

std::string InitBarrier::MissingProviderText() const {
  GraphLockGuard lock;
  std::string text = "Orvane dependency error: Initialization barrier \"" + Name() +
                     "\" is not provided by any plugin but the following plugins require it: ";
  const char* separator = "";
  for (const Node* requirer : Successors()) {
    text += separator;
    text += '"' + requirer->Name() + '"';
    separator = ", ";
  }
  return text;
}

}  // namespace orvane
