#include "orvaner/LoadedPlugins.h"

#include <utility>

namespace orvane {

void LoadedPlugins::Append(std::unique_ptr<Plugin> plugin) {
  list_.push_back(plugin.get());
  owned_.push_back(std::move(plugin));
}

void LoadedPlugins::Keep(std::unique_ptr<Plugin> plugin) { owned_.push_back(std::move(plugin)); }

void LoadedPlugins::Append(LoadedPlugins&& other) {
  list_.insert(list_.end(), other.list_.begin(), other.list_.end());
  Keep(std::move(other));
}

void LoadedPlugins::Keep(LoadedPlugins&& other) {
  for (std::unique_ptr<Plugin>& plugin : other.owned_) {
    owned_.push_back(std::move(plugin));
  }
  other.owned_.clear();
  other.list_.clear();
}

}  // namespace orvane
