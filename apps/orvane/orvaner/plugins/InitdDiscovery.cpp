#include "orvaner/plugins/InitdDiscovery.h"

#include <cstdint>
#include <exception>
#include <map>
#include <set>
#include <sstream>
#include <unordered_set>

#include "hostfile/HostFile.h"
#include "log/Log.h"
#include "orvane/FixedPaths.h"
#include "orvaner/Exception.h"
#include "orvaner/plugins/LegacyDaemonPlugin.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

constexpr const char* kListingOption = " -p";
// A line per init.d script.
constexpr std::size_t kMaxListingSize = std::size_t{1024} * 1024;

/// Started by init mode itself before any plugin runs.
const std::unordered_set<std::string>& SkippedDaemons() {
  static const std::unordered_set<std::string> skipped = {"zelsyslogd", "wexd"};
  return skipped;
}

using Listing = std::multimap<std::int32_t, std::string>;

// A line holds a script, white space and its start order; anything after
// that is not ours to read.
void ReadListingLine(const std::string& line, Listing& listing) {
  std::istringstream fields(line);
  std::string script;
  std::int32_t startOrder = 0;
  if (!(fields >> script)) return;  // a blank line
  if (!(fields >> startOrder)) {
    Log_Level(LOG_LEVEL_WARNING, "ignoring init.d listing line without a start order: '%s'\n",
              line.c_str());
    return;
  }
  listing.emplace(startOrder, script);
}

// The listing is read whole, but never more than kMaxListingSize bytes of
// it: a listing program that runs away must not take the run's memory.
Listing ReadListing(const hostfile::FileContent& output, const std::string& listingCommand) {
  if (!output.Ok()) {
    throw Exception("cannot use the init.d listing of '" + listingCommand +
                    "': " + output.Problem());
  }
  Listing listing;
  std::istringstream lines(output.text);
  for (std::string line; std::getline(lines, line);) {
    ReadListingLine(line, listing);
  }
  return listing;
}

// "/etc/init.d/ntpd" names the plugin "ntpd".
std::string PluginName(const std::string& script) {
  const std::string::size_type slash = script.rfind('/');
  return slash == std::string::npos ? script : script.substr(slash + 1);
}

}  // namespace

std::string InitdListingCommand() { return std::string(paths::kChkconfig) + kListingOption; }

std::vector<std::unique_ptr<Plugin>> DiscoverInitdDaemons(BarrierRegistry& registry,
                                                          const std::string& listingCommand) {
  std::vector<std::unique_ptr<Plugin>> plugins;
  const process::ShellOutput listingOutput =
      process::Spawner::Instance().ReadShellOutput(listingCommand, kMaxListingSize);
  if (!listingOutput.started) {
    throw Exception("Failed obtaining list of init.d scripts");
  }
  const Listing listing = ReadListing(listingOutput.output, listingCommand);

  std::set<std::string> seenScripts;
  for (const auto& [startOrder, script] : listing) {
    const std::string name = PluginName(script);
    if (SkippedDaemons().contains(name)) continue;
    if (!seenScripts.insert(script).second) {
      // Kept, as listed: the daemon is started once per listing line.
      Log_Level(LOG_LEVEL_WARNING, "init.d script %s is listed more than once\n", script.c_str());
    }
    try {
      plugins.push_back(std::make_unique<LegacyDaemonPlugin>(name, script, startOrder, registry));
    } catch (const std::exception& error) {
      Log_Level(LOG_LEVEL_WARNING, "Failed to create init.d daemon plugin: %s because: %s\n",
                script.c_str(), error.what());
    } catch (...) {
      Log_Level(LOG_LEVEL_WARNING, "Failed to create init.d daemon plugin: %s\n", script.c_str());
    }
  }
  return plugins;
}

}  // namespace orvane
