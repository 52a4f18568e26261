#include "orvaner/plugins/LoadedPlugins.h"

#include <iterator>
#include <utility>

namespace orvane {

void LoadedPlugins::Append(std::unique_ptr<Plugin> plugin, std::string source) {
  loadLog_.push_back({false, plugin.get(), std::move(source), {}, {}});
  list_.push_back(plugin.get());
  owned_.push_back(std::move(plugin));
}

void LoadedPlugins::Refuse(std::string source, std::string name, std::string reason,
                           const Plugin* plugin) {
  loadLog_.push_back({true, plugin, std::move(source), std::move(name), std::move(reason)});
}

void LoadedPlugins::Keep(std::unique_ptr<Plugin> plugin) { owned_.push_back(std::move(plugin)); }

void LoadedPlugins::Append(LoadedPlugins&& other) {
  // Handing a whole enumeration over to an empty list (as a run does) takes
  // its containers as they are, without a second copy of every entry.
  if (list_.empty() && loadLog_.empty() && owned_.empty()) {
    list_.swap(other.list_);
    loadLog_.swap(other.loadLog_);
    owned_.swap(other.owned_);
    return;
  }
  list_.insert(list_.end(), other.list_.begin(), other.list_.end());
  loadLog_.insert(loadLog_.end(), std::make_move_iterator(other.loadLog_.begin()),
                  std::make_move_iterator(other.loadLog_.end()));
  Keep(std::move(other));
}

void LoadedPlugins::Keep(LoadedPlugins&& other) {
  for (std::unique_ptr<Plugin>& plugin : other.owned_) {
    owned_.push_back(std::move(plugin));
  }
  other.owned_.clear();
  other.list_.clear();
  other.loadLog_.clear();
}

}  // namespace orvane
