/// Turning the host's init.d scripts into legacy daemon plugins.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "orvaner/plugins/Plugin.h"

namespace orvane {

class BarrierRegistry;

/// The command that lists the init.d scripts with their start orders.
std::string InitdListingCommand();

/// Runs @p listingCommand through the shell and makes one
/// LegacyDaemonPlugin per listed script ("<script> <start order>" per line),
/// in ascending start order, equal orders in listing order, linked into
/// @p registry's priority chain. The plugin name is the script's last path
/// component; the syslog and event daemons, which init mode starts itself,
/// are left out. Lines without a start order are skipped with a warning; a
/// plugin that cannot be made is logged and left out. Throws Exception
/// "Failed obtaining list of init.d scripts" when the command cannot be
/// started.
std::vector<std::unique_ptr<Plugin>> DiscoverInitdDaemons(
    BarrierRegistry& registry, const std::string& listingCommand = InitdListingCommand());

}  // namespace orvane
