#include "analyze/VerifyLoader.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "hostfile/HostFile.h"
#include "orvane/FixedPaths.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/Node.h"
#include "orvaner/plugins/JSONPlugin.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/plugins/NativePlugin.h"
#include "orvaner/run/PluginEnumeration.h"

namespace orvane::analyze {
namespace {

constexpr std::string_view kDebugFileSuffix = ".debug";

// The flags that @p plugin both requires and is disabled by, each followed
// by one blank; empty when there are none.
std::string FlagsBothNeededAndDisabling(const Plugin& plugin) {
  std::string flags;
  for (const std::string& flag : plugin.GetRequiredFlags()) {
    if (plugin.GetDisablingFlags().contains(flag)) flags += flag + " ";
  }
  return flags;
}

std::string HostPluginFile(const std::string& fileName) {
  return std::string(paths::kPluginDirectory) + "/" + fileName;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += (text.empty() ? "" : "\n") + line;
  }
  return text;
}

// The plugin's edges lead only to barriers, whose names are what the
// plugin declared.
VerifyPlugin Describe(const Plugin& plugin, const std::string& file, bool refused) {
  VerifyPlugin described;
  described.name = plugin.Name();
  described.file = file;
  described.refused = refused;
  described.requiredBarriers = NamesOf(plugin.Predecessors());
  described.providedBarriers = NamesOf(plugin.Successors());
  if (const auto* json = dynamic_cast<const JSONPlugin*>(&plugin)) {
    described.kind = VerifyPlugin::Kind::JSON;
    described.startCommands = json->StartCommands();
    described.hostProfileCommands = json->HostProfileCommands();
  } else if (dynamic_cast<const NativePlugin*>(&plugin) != nullptr) {
    described.kind = VerifyPlugin::Kind::Native;
  } else {
    described.kind = VerifyPlugin::Kind::Debug;
  }
  return described;
}

// The lines of @p lines that are not in @p known, nor part of an alert
// (the loader logs each alert it raises, too).
std::vector<std::string> NewLines(const std::vector<std::string>& lines,
                                  const std::set<std::string>& known,
                                  const std::vector<std::string>& alerts) {
  std::set<std::string> alertLines;
  for (const std::string& alert : alerts) {
    std::string::size_type start = 0;
    for (std::string::size_type end; (end = alert.find('\n', start)) != std::string::npos;
         start = end + 1) {
      alertLines.insert(alert.substr(start, end - start));
    }
    alertLines.insert(alert.substr(start));
  }
  std::vector<std::string> kept;
  for (const std::string& line : lines) {
    if (!known.contains(line) && !alertLines.contains(line)) {
      kept.push_back(line);
    }
  }
  return kept;
}

}  // namespace

std::vector<std::string> NamesOf(const std::vector<Node*>& nodes) {
  std::vector<std::string> names;
  names.reserve(nodes.size());
  for (const Node* node : nodes) {
    names.push_back(node->Name());
  }
  return names;
}

VerifyLoader::VerifyLoader(const VerifyPaths& paths, VerifyCapture& capture, VerifyReport& report)
    : paths_(paths), capture_(capture), report_(report) {
  options_.pluginDirectory = paths_.PluginDirectory();
}

std::vector<VerifyPlugin> VerifyLoader::Load() {
  ReadDebugConfiguration();
  const std::vector<std::string> fileNames = ListPluginDirectory();
  report_.Counts().pluginFiles = fileNames.size();
  for (const std::string& fileName : fileNames) {
    LoadFile(fileName);
  }
  AddDebugInjections();
  VerifyCounts& counts = report_.Counts();
  for (const VerifyPlugin& plugin : plugins_) {
    if (plugin.refused) continue;
    switch (plugin.kind) {
      case VerifyPlugin::Kind::JSON: ++counts.jsonPlugins; break;
      case VerifyPlugin::Kind::Native: ++counts.nativePlugins; break;
      case VerifyPlugin::Kind::Debug: ++counts.debugInjections; break;
    }
  }
  return std::move(plugins_);
}

void VerifyLoader::ReadDebugConfiguration() {
  // The loader warns of a configuration it cannot read only once per
  // process, so whether it can be read is asked of the host-file reader
  // itself, with the loader's bound.
  const hostfile::FileContent file =
      hostfile::ReadHostFile(paths_.DebugConfiguration(), kMaxDebugConfigurationSize);
  const VerifyMessages messages = capture_.Run(
      [this] { orvane::ReadDebugConfiguration(debugEntries_, paths_.DebugConfiguration()); });
  debugConfigurationLines_.insert(messages.lines.begin(), messages.lines.end());
  // An unreadable file or a malformed line loses injections that were
  // meant to run; a missing file is a host without injections.
  if (!file.Ok()) {
    if (file.status != hostfile::ReadStatus::CannotOpen || file.error != ENOENT) {
      report_.AddFailure(VerifyKind::DebugConfiguration, paths::kDebugConfiguration,
                         "a boot reads it as absent: " + file.Problem());
    }
    return;
  }
  for (const std::string& line : messages.lines) {
    report_.AddFailure(VerifyKind::DebugConfiguration, paths::kDebugConfiguration, line);
  }
}

std::vector<std::string> VerifyLoader::ListPluginDirectory() {
  std::vector<std::string> fileNames;
  try {
    // The same walk as the loader's: what the iterator throws ends a boot's
    // loading, and the boot with it.
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::directory_iterator(paths_.PluginDirectory())) {
      fileNames.push_back(entry.path().filename().string());
    }
  } catch (const std::exception& error) {
    report_.AddFailure(VerifyKind::PluginDirectory, paths::kPluginDirectory,
                       std::string("a boot loads no plugin: ") + error.what());
  }
  std::sort(fileNames.begin(), fileNames.end());
  return fileNames;
}

void VerifyLoader::LoadFile(const std::string& fileName) {
  Attempt attempt = LoadOnce(fileName);
  Take(HostPluginFile(fileName), attempt);
}

VerifyLoader::Attempt VerifyLoader::LoadOnce(const std::string& fileName) {
  // Declared first so that it goes last: the plugins and the barriers
  // point at each other, and the refused plugins are the registry's.
  BarrierRegistry registry;
  LoadedPlugins loaded;
  Attempt attempt;
  const std::vector<std::string> noneDisabled;
  std::set<std::string> noRunOnce;
  attempt.messages = capture_.Run([&] {
    LoadPlugin(fileName, loaded, PluginFilters{{}, noneDisabled, noRunOnce}, options_, registry,
               paths_.DebugConfiguration());
  });
  attempt.messages.lines =
      NewLines(attempt.messages.lines, debugConfigurationLines_, attempt.messages.alerts);

  GraphLockGuard lock;
  const std::string hostFile = HostPluginFile(fileName);
  std::unordered_set<const Node*> seen;
  for (const LoadedPlugins::LoadEntry& entry : loaded.LoadLog()) {
    if (entry.plugin == nullptr) continue;
    const Plugin& plugin = *entry.plugin;
    seen.insert(&plugin);
    if (!entry.refused) {
      attempt.listed.push_back(Describe(plugin, hostFile, false));
      continue;
    }
    // No boot flags are given, so only a plugin that needs some is left out
    // here: it is checked as taking part in a boot that has them, unless no
    // boot can have them.
    const std::string neverRuns = FlagsBothNeededAndDisabling(plugin);
    if (neverRuns.empty()) {
      attempt.listed.push_back(Describe(plugin, hostFile, false));
      attempt.flagConditions.push_back(
          "checked as taking part in a boot with its flags; a boot without them leaves it out, " +
          entry.reason);
    } else {
      attempt.keptDone.push_back(Describe(plugin, hostFile, true));
      attempt.flagConditions.push_back(
          "not checked further: no boot runs it, as it needs and is disabled by the same boot "
          "flags: " +
          neverRuns);
    }
  }
  // A plugin left out but linked is found through its barriers; the
  // registry holds nothing else.
  for (const Node* barrier : registry.ListBarriers()) {
    for (const std::vector<Node*>* edges : {&barrier->Predecessors(), &barrier->Successors()}) {
      for (const Node* vertex : *edges) {
        const auto* plugin = dynamic_cast<const Plugin*>(vertex);
        if (plugin != nullptr && seen.insert(plugin).second) {
          attempt.keptDone.push_back(Describe(*plugin, hostFile, true));
        }
      }
    }
  }
  return attempt;
}

void VerifyLoader::Take(const std::string& hostFile, Attempt& attempt) {
  VerifyMessages& messages = attempt.messages;
  for (const std::string& alert : messages.alerts) {
    report_.AddFailure(VerifyKind::PluginFile, hostFile, alert);
  }
  for (const std::string& condition : attempt.flagConditions) {
    report_.AddNote(VerifyKind::BootFlags, hostFile, condition);
    // The loader's own line says the same.
    std::erase_if(messages.lines, [](const std::string& line) {
      return line.find(", disabled due to ") != std::string::npos;
    });
  }
  if (!messages.lines.empty()) {
    report_.AddNote(VerifyKind::PluginFile, hostFile, Joined(messages.lines));
  } else if (attempt.listed.empty() && attempt.keptDone.empty() && messages.alerts.empty()) {
    report_.AddNote(VerifyKind::PluginFile, hostFile,
                    hostFile.ends_with(kDebugFileSuffix)
                        ? "loads nothing: no entry of the debug configuration has its name"
                        : "loads nothing");
  }
  for (std::vector<VerifyPlugin>* plugins : {&attempt.listed, &attempt.keptDone}) {
    std::move(plugins->begin(), plugins->end(), std::back_inserter(plugins_));
  }
}

void VerifyLoader::AddDebugInjections() {
  // What DebugPlugin links: after each required barrier, before each
  // provided one.
  for (const DebugEntry& entry : debugEntries_) {
    VerifyPlugin injection;
    injection.kind = VerifyPlugin::Kind::Debug;
    injection.name = entry.name;
    injection.file = paths::kDebugConfiguration;
    injection.requiredBarriers = entry.requiredBarriers;
    injection.providedBarriers = entry.providedBarriers;
    plugins_.push_back(std::move(injection));
  }
}

}  // namespace orvane::analyze
