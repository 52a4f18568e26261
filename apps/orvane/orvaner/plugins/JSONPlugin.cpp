#include "orvaner/plugins/JSONPlugin.h"

#include <algorithm>
#include <boost/json/error.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/parse_options.hpp>
#include <boost/json/value.hpp>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <utility>

#include "hostfile/HostFile.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/cli/QorcliExecutor.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/GraphLock.h"

namespace orvane {
namespace {

constexpr const char* kStartMethod = "start";
constexpr const char* kHostProfileMethod = "apply_host_profile";
constexpr const char* kApplyHostProfileName = "json_plugin::ApplyHostProfile";
constexpr const char* kCommandsFailed = "error while executing the cli";

// Keys of the description.
constexpr const char* kMetadataKey = "metadata";
constexpr const char* kVersionKey = "version";
constexpr const char* kRequiresKey = "requires";
constexpr const char* kProvidesKey = "provides";
constexpr const char* kRequiredFlagsKey = "required_flags";
constexpr const char* kDisablingFlagsKey = "disabling_flags";
constexpr const char* kRunOnceKey = "run_once";
constexpr const char* kPluginVersionKey = "plugin_version";
constexpr const char* kOperationsKey = "operations";
constexpr const char* kStartKey = "start";
constexpr const char* kHostProfileKey = "apply_host_profile";

// Why a description is refused. The host-profile text spells the key with
// hyphens although the key itself has underscores; both are kept as they are.
constexpr const char* kCannotOpen = "no such file or directory";
constexpr const char* kRootNotObject = "plugin root is not an object";
constexpr const char* kBadMetadata = "invalid metadata interface";
constexpr const char* kBadVersion = "metadata is corrupt (unable to parse version)";
constexpr const char* kUnsupportedVersion = "Unsupported API version";
constexpr const char* kCorruptMetadataPrefix = "metadata is corrupt (unable to parse ";
constexpr const char* kTagNotStringSuffix = " tag is not a string";
constexpr const char* kBadRunOnce = "metadata is corrupt (unable to parse run_once)";
constexpr const char* kBadPluginVersion = "metadata is corrupt (unable to parse plugin_version)";
constexpr const char* kBadOperations = "invalid operations interface";
constexpr const char* kBadStart = "operations is corrupt (unable to parse start)";
constexpr const char* kBadHostProfile =
    "operations is corrupt (unable to parse apply-host-profile)";
constexpr const char* kCommandNotString = "command is not a string";

constexpr std::int32_t kFirstApiVersion = 1;
constexpr std::int32_t kLastApiVersion = 4;
constexpr std::int32_t kHostProfileApiVersion = 2;
constexpr std::int32_t kFlagsApiVersion = 3;

/// A refusal of the description, before it is dressed with the path.
class Refusal : public std::exception {
 public:
  explicit Refusal(std::string reason) : reason_(std::move(reason)) {}
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string reason_;
};

// A JSON number truncated toward zero; values beyond the 32-bit range are
// held at its ends, where they are as unsupported as they were.
std::int32_t TruncateToInt32(const boost::json::value& number) {
  constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
  constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();
  if (number.is_int64()) {
    const std::int64_t value = number.get_int64();
    return value < kLowest    ? kLowest
           : value > kHighest ? kHighest
                              : static_cast<std::int32_t>(value);
  }
  if (number.is_uint64()) {
    // The parser makes a uint64 only of values above the int64 range.
    return kHighest;
  }
  const double value = std::trunc(number.get_double());
  if (std::isnan(value)) {
    // The parser reads zero with an exponent beyond a double's range
    // ("0e400") as zero times infinity: NaN, whose value is 0.
    return 0;
  }
  if (value <= kLowest) {
    return kLowest;
  }
  if (value >= kHighest) {
    return kHighest;
  }
  return static_cast<std::int32_t>(value);
}

// The array under @p key, checked to hold only strings before anything is
// taken from it.
const boost::json::array& StringArray(const boost::json::object& metadata, const std::string& key) {
  const boost::json::value* member = metadata.if_contains(key);
  if (member == nullptr || !member->is_array()) {
    throw Refusal(kCorruptMetadataPrefix + key + ")");
  }
  for (const boost::json::value& element : member->get_array()) {
    if (!element.is_string()) {
      throw Refusal(key + kTagNotStringSuffix);
    }
  }
  return member->get_array();
}

// Appends the command lines of @p commands to @p commandLines in order,
// up to the first that is not a string.
void AppendCommands(const boost::json::array& commands, std::vector<std::string>& commandLines) {
  // Room for all of them at once when all will be taken (grown one by one,
  // three commands would take room for four); a list that will be refused
  // does not get room for millions of entries it never fills.
  const bool allStrings =
      std::all_of(commands.begin(), commands.end(),
                  [](const boost::json::value& command) { return command.is_string(); });
  if (allStrings) {
    commandLines.reserve(commandLines.size() + commands.size());
  }
  for (const boost::json::value& command : commands) {
    if (!command.is_string()) {
      throw Refusal(kCommandNotString);
    }
    commandLines.emplace_back(command.get_string());
  }
}

}  // namespace

JSONPlugin::JSONPlugin(std::string name) : Plugin(std::move(name)) {}

std::unique_ptr<JSONPlugin> JSONPlugin::Load(std::string name, const std::string& path,
                                             BarrierRegistry& registry) {
  return LoadAs<JSONPlugin>(std::move(name), path, registry);
}

void JSONPlugin::KeepIfLinked(std::unique_ptr<JSONPlugin> plugin, BarrierRegistry& registry) {
  GraphLockGuard lock;
  if (plugin->Predecessors().empty() && plugin->Successors().empty()) {
    return;
  }
  // Done, so that a barrier it provides does not schedule it and one it
  // requires does not wait for it.
  plugin->MarkDone();
  registry.Adopt(std::move(plugin));
}

void JSONPlugin::ReadDescription(const std::string& path, BarrierRegistry& registry) {
  try {
    hostfile::FileContent description = hostfile::ReadHostFile(path, kMaxDescriptionSize);
    switch (description.status) {
      case hostfile::ReadStatus::Read: break;
      // Whatever made the open fail, the reason reads the same.
      case hostfile::ReadStatus::CannotOpen: throw Refusal(kCannotOpen);
      case hostfile::ReadStatus::TooLarge: throw Refusal("description is " + description.Problem());
      case hostfile::ReadStatus::NotRegular:
      case hostfile::ReadStatus::ReadFailed: throw Refusal(description.Problem());
    }
    ParseDescription(description.text, registry);
  } catch (const Refusal& refusal) {
    throw InvalidPluginException(path, refusal.what());
  }
}

void JSONPlugin::ParseDescription(std::string_view content, BarrierRegistry& registry) {
  // Everything the parser allocates goes into one arena, first on the
  // stack, released at once when the description has been read.
  unsigned char arenaStart[4096];
  boost::json::monotonic_resource arena(arenaStart, sizeof arenaStart);
  boost::json::parse_options options;
  options.allow_comments = true;
  options.allow_invalid_utf8 = true;  // command lines are passed on as bytes
  options.max_depth = kMaxNestingDepth;
  boost::system::error_code error;
  const boost::json::value root = boost::json::parse(content, error, &arena, options);
  if (error == boost::json::error::too_deep) {
    throw Refusal("description nests deeper than " + std::to_string(kMaxNestingDepth) + " levels");
  }
  if (error || !root.is_object()) {
    throw Refusal(kRootNotObject);
  }
  ReadMetadata(root.get_object(), registry);
  ReadOperations(root.get_object());
}

void JSONPlugin::ReadMetadata(const boost::json::object& root, BarrierRegistry& registry) {
  const boost::json::value* metadata = root.if_contains(kMetadataKey);
  if (metadata == nullptr || !metadata->is_object()) {
    throw Refusal(kBadMetadata);
  }
  const boost::json::object& fields = metadata->get_object();

  const boost::json::value* version = fields.if_contains(kVersionKey);
  if (version == nullptr || !version->is_number()) {
    throw Refusal(kBadVersion);
  }
  apiVersion = TruncateToInt32(*version);
  if (apiVersion < kFirstApiVersion || apiVersion > kLastApiVersion) {
    throw Refusal(kUnsupportedVersion);
  }

  for (const boost::json::value& barrier : StringArray(fields, kRequiresKey)) {
    Requires(*registry.GetBarrier(std::string_view(barrier.get_string()), true));
  }
  for (const boost::json::value& barrier : StringArray(fields, kProvidesKey)) {
    Provides(*registry.GetBarrier(std::string_view(barrier.get_string()), true));
  }

  if (apiVersion < kFlagsApiVersion) {
    return;
  }
  for (const auto& [key, flags] : {std::pair{kRequiredFlagsKey, &requiredFlags},
                                   std::pair{kDisablingFlagsKey, &disablingFlags}}) {
    if (fields.contains(key)) {
      for (const boost::json::value& flag : StringArray(fields, key)) {
        flags->emplace(flag.get_string());
      }
    }
  }
  const boost::json::value* runOnceValue = fields.if_contains(kRunOnceKey);
  if (runOnceValue == nullptr || !runOnceValue->is_bool()) {
    throw Refusal(kBadRunOnce);
  }
  runOnce = runOnceValue->get_bool();
  const boost::json::value* versionText = fields.if_contains(kPluginVersionKey);
  if (versionText == nullptr || !versionText->is_string()) {
    throw Refusal(kBadPluginVersion);
  }
  pluginVersion = versionText->get_string();
}

void JSONPlugin::ReadOperations(const boost::json::object& root) {
  const boost::json::value* operations = root.if_contains(kOperationsKey);
  if (operations == nullptr || !operations->is_object()) {
    throw Refusal(kBadOperations);
  }
  const boost::json::object& lists = operations->get_object();

  const boost::json::value* start = lists.if_contains(kStartKey);
  if (start == nullptr || !start->is_array()) {
    throw Refusal(kBadStart);
  }
  AppendCommands(start->get_array(), startCommands);

  hasHostProfileOperation = false;
  if (apiVersion < kHostProfileApiVersion) {
    return;
  }
  const boost::json::value* hostProfile = lists.if_contains(kHostProfileKey);
  if (hostProfile == nullptr) {
    return;
  }
  if (!hostProfile->is_array()) {
    throw Refusal(kBadHostProfile);
  }
  hasHostProfileOperation = true;
  AppendCommands(hostProfile->get_array(), hostProfileCommands);
}

void JSONPlugin::Start() { RunCliCommands(kStartMethod, startCommands); }

bool JSONPlugin::SupportsHostProfile() const {
  return apiVersion > kFirstApiVersion && hasHostProfileOperation;
}

void JSONPlugin::ApplyHostProfile() {
  if (apiVersion < kHostProfileApiVersion) {
    throw NotImplementedException(kApplyHostProfileName);
  }
  RunCliCommands(kHostProfileMethod, hostProfileCommands);
}

void JSONPlugin::SendCommand(const std::string& commandLine) {
  QorcliExecutor::Instance().RunCommand(commandLine);
}

void JSONPlugin::RunCliCommands(const std::string& method,
                                const std::vector<std::string>& commandLines) {
  std::size_t failures = 0;
  for (const std::string& commandLine : commandLines) {
    try {
      SendCommand(commandLine);
    } catch (const std::exception& error) {
      Log_Level(LOG_LEVEL_ERROR, "%s\n", error.what());
      ++failures;
    } catch (...) {
      ++failures;
    }
  }
  if (failures != 0) {
    throw MethodFailedException(method, Name(), kCommandsFailed);
  }
}

}  // namespace orvane
