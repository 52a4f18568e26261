#include "orvaner/Plugin.h"

#include <exception>
#include <utility>

#include "log/Log.h"
#include "orvaner/Exception.h"

namespace orvane {
namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1000000;

}  // namespace

Plugin::Plugin(std::string name) : Plugin(std::move(name), kDefaultSchedulingClass) {}

Plugin::Plugin(std::string name, std::uint32_t schedulingClass)
    : Node(std::move(name), schedulingClass) {}

std::string Plugin::DotAttributes() { return ""; }

std::int64_t Plugin::GetElapsedMicroseconds() const {
  return (static_cast<std::int64_t>(endTime.tv_sec) - startTime.tv_sec) * kMicrosecondsPerSecond +
         (static_cast<std::int64_t>(endTime.tv_usec) - startTime.tv_usec);
}

bool Plugin::InvokeMethod(const std::string& method) {
  try {
    if (method == "start") {
      Log_Level(LOG_LEVEL_INFO, "executing start plugin: %s\n", Name().c_str());
      Start();
    } else if (method == "apply_host_profile") {
      Log_Level(LOG_LEVEL_INFO, "executing host profile plugin: %s\n", Name().c_str());
      ApplyHostProfile();
    }
    // Any other name succeeds silently; invoke runs rely on it.
    return true;
  } catch (const MethodFailedException& failure) {
    Log_Level(LOG_LEVEL_ERROR, "Method invocation failed: %s\n", failure.what());
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "unable to invoke method '%s' on plugin '%s': %s\n", method.c_str(),
              Name().c_str(), error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR,
              "unknown exception whilst attempting to execute method '%s' on plugin '%s'\n",
              method.c_str(), Name().c_str());
  }
  return false;
}

}  // namespace orvane
