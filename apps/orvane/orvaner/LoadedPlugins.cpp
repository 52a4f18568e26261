#include "orvaner/LoadedPlugins.h"

#include <utility>

namespace orvane {

void LoadedPlugins::Append(std::unique_ptr<Plugin> plugin) {
  list_.push_back(plugin.get());
  owned_.push_back(std::move(plugin));
}

}  // namespace orvane
