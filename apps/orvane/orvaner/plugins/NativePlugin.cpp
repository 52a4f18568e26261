#include "orvaner/plugins/NativePlugin.h"

#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include "ZelkuserCompat/Spawn.h"
#include "orvane/plugin.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Node.h"
#include "orvaner/plugins/SharedObjectCheck.h"
#include "process/SharedObject.h"
#include "process/Spawner.h"

extern char** environ;

namespace orvane {
namespace {

constexpr const char* kOperationsSymbol = "operations";
constexpr const char* kMetadataSymbol = "metadata";
constexpr const char* kStartMethod = "start";
constexpr const char* kApplyHostProfileMethod = "apply_host_profile";
/// The first API version whose metadata carries flags, run-once and version.
constexpr std::uint32_t kExtendedMetadataVersion = 3;
constexpr std::size_t kStatusTextSize = 512;

std::string StatusText(ZelkuserStatus status) {
  char text[kStatusTextSize];
  return ZelkuserStatus_CodeToString(status, text, sizeof text);
}

void* OpenLibrary(const std::string& libraryPath) {
  if (std::string reason = UnfitReason(libraryPath); !reason.empty()) {
    throw InvalidPluginException(libraryPath, reason);
  }
  std::string loaderError;
  void* handle = process::OpenSharedObject(libraryPath, loaderError);
  if (handle == nullptr) {
    throw InvalidPluginException(libraryPath, loaderError);
  }
  return handle;
}

// The failure is the base Exception, not InvalidPluginException.
void* LookUpSymbol(void* handle, const char* symbol, const std::string& libraryPath) {
  std::string reason;
  void* address = process::FindSymbol(handle, symbol, reason);
  if (!reason.empty()) {
    process::CloseSharedObject(handle);
    throw Exception("Failed loading symbol: " + std::string(symbol) +
                    " Located at: " + libraryPath + " Reason: " + reason);
  }
  return address;
}

template <typename Visit>
void ForEachName(const char* const* names, Visit visit) {
  for (; names != nullptr && *names != nullptr; ++names) {
    visit(std::string(*names));
  }
}

void InsertNames(const char* const* names, std::set<std::string>& into) {
  ForEachName(names, [&into](std::string name) { into.insert(std::move(name)); });
}

// Starts the helper with our standard input, output and error; fills
// @p reason and returns -1 when it could not be started.
pid_t StartHelper(const std::string& program, char* const argv[], std::string& reason) {
  const process::Started started =
      process::Spawner::Instance().StartSharingStandardStreams(program.c_str(), argv, environ);
  switch (started.failedStep) {
    case process::StartStep::None: return started.pid;
    case process::StartStep::PrepareSpawn:
      reason = "failed to init file actions: " + StatusText(started.error);
      break;
    case process::StartStep::ShareStream:
      // No separator before the status text: the reason reads this way.
      reason = "failed to add dup2 file actions" + StatusText(started.error);
      break;
    case process::StartStep::Spawn: reason = "failed to spawn: " + StatusText(started.error); break;
  }
  return -1;
}

// Waits for the helper; the reason its method failed, or empty when it
// exited with status 0.
std::string WaitForHelper(pid_t pid) {
  const process::ExitStatus status = process::Spawner::Instance().Wait(pid);
  switch (status.How()) {
    case process::ExitStatus::Kind::Exited:
      return status.Code() == 0 ? "" : "exited with code " + std::to_string(status.Code());
    case process::ExitStatus::Kind::Killed:
      return "exited with signal: " + std::to_string(status.Signal());
    case process::ExitStatus::Kind::NotCollected: return "failed to read exit status";
    case process::ExitStatus::Kind::Other: break;
  }
  return "exited: <unknown failure>";
}

}  // namespace

NativePlugin::NativePlugin(std::string name, std::string libraryPath, BarrierRegistry& registry,
                           std::string nativeExecutor)
    : Plugin(std::move(name)),
      libraryPath(std::move(libraryPath)),
      nativeExecutor_(std::move(nativeExecutor)) {
  void* handle = OpenLibrary(this->libraryPath);
  const auto* operations = static_cast<const orvane_plugin_operation*>(
      LookUpSymbol(handle, kOperationsSymbol, this->libraryPath));
  const auto* metadata = static_cast<const orvane_plugin_metadata*>(
      LookUpSymbol(handle, kMetadataSymbol, this->libraryPath));

  hasHostProfileOperation = operations[ORVANE_PLUGIN_OPERATION_APPLY_HOST_PROFILE] != nullptr;
  apiVersion = static_cast<std::int32_t>(metadata->api_version);
  if (metadata->api_version < ORVANE_PLUGIN_API_VERSION_MIN ||
      metadata->api_version > ORVANE_PLUGIN_API_VERSION_MAX) {
    process::CloseSharedObject(handle);
    throw InvalidPluginException(this->libraryPath, "Unsupported API version");
  }

  // Provided barriers before required ones, the reverse of JSON plugins.
  ForEachName(metadata->provided_barriers, [this, &registry](const std::string& barrier) {
    Provides(*registry.GetBarrier(barrier, true));
  });
  ForEachName(metadata->required_barriers, [this, &registry](const std::string& barrier) {
    Requires(*registry.GetBarrier(barrier, true));
  });

  if (metadata->api_version >= kExtendedMetadataVersion) {
    InsertNames(metadata->required_flags, requiredFlags);
    InsertNames(metadata->disabling_flags, disablingFlags);
    runOnce = metadata->run_once;
    if (metadata->plugin_version != nullptr) {
      pluginVersion = metadata->plugin_version;
    }
  }
  // The object stays loaded for the rest of the process.
}

void NativePlugin::Start() { RunNativeMethod(kStartMethod); }

bool NativePlugin::SupportsHostProfile() const { return apiVersion > 1 && hasHostProfileOperation; }

void NativePlugin::ApplyHostProfile() {
  if (apiVersion < 2 || !hasHostProfileOperation) {
    throw NotImplementedException("NativePlugin::ApplyHostProfile");
  }
  RunNativeMethod(kApplyHostProfileMethod);
}

void NativePlugin::RunNativeMethod(const std::string& method) {
  std::string pluginName = Name();
  std::string program = nativeExecutor_;
  std::string library = libraryPath;
  std::string methodName = method;
  char* const argv[] = {program.data(), library.data(), pluginName.data(), methodName.data(),
                        nullptr};
  std::string reason;
  const pid_t pid = StartHelper(program, argv, reason);
  if (pid >= 0) {
    reason = WaitForHelper(pid);
  }
  if (!reason.empty()) {
    throw MethodFailedException(method, Name(), reason);
  }
}

}  // namespace orvane
