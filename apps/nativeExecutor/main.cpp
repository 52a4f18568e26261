// nativeExecutor <library> <plugin-name> <method>
//
// Loads a native plugin's shared object, calls the operation that <method>
// names ("start" or "apply_host_profile") and exits with the outcome, so
// that the orchestrator never runs plugin code in its own process:
//   0  the operation returned 0
//   1  the operation returned anything else
//   2  usage error, unknown method, or the plugin has no such operation
//   3  the library or its "operations" table cannot be loaded
// Every failure prints one line naming the plugin on standard error. The
// operation itself may print, crash or exit as it likes; the orchestrator
// reads that from the exit status.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "orvane/plugin.h"

namespace {

enum ExitCode : int {
  kSucceeded = 0,
  kOperationFailed = 1,
  kUsageError = 2,
  kNotLoadable = 3,
};

constexpr const char* kProgram = "nativeExecutor";

struct Method {
  const char* name;
  int operationIndex;
};

constexpr Method kMethods[] = {
    {"start", ORVANE_PLUGIN_OPERATION_START},
    {"apply_host_profile", ORVANE_PLUGIN_OPERATION_APPLY_HOST_PROFILE},
};

const Method* FindMethod(const char* name) {
  for (const Method& method : kMethods) {
    if (std::strcmp(method.name, name) == 0) return &method;
  }
  return nullptr;
}

const char* LoaderError() {
  const char* error = dlerror();
  return error != nullptr ? error : "unknown reason";
}

int Fail(int code, const char* plugin, const std::string& message) {
  std::fprintf(stderr, "%s: plugin '%s': %s\n", kProgram, plugin, message.c_str());
  return code;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 4) {
    const std::string usage =
        std::string("usage: ") + kProgram + " <library> <plugin-name> <method>";
    if (argc >= 3) {
      return Fail(kUsageError, argv[2], usage);
    }
    std::fprintf(stderr, "%s: %s\n", kProgram, usage.c_str());
    return kUsageError;
  }
  const char* library = argv[1];
  const char* plugin = argv[2];
  const char* methodName = argv[3];

  // The method is checked first so that a bad call never runs the object's
  // initialisers.
  const Method* method = FindMethod(methodName);
  if (method == nullptr) {
    return Fail(kUsageError, plugin, std::string("unknown method '") + methodName + "'");
  }

  dlerror();
  void* handle = dlopen(library, RTLD_LAZY | RTLD_GLOBAL);
  if (handle == nullptr) {
    return Fail(kNotLoadable, plugin, std::string("cannot load library: ") + LoaderError());
  }
  dlerror();
  void* table = dlsym(handle, "operations");
  if (const char* error = dlerror(); error != nullptr) {
    return Fail(kNotLoadable, plugin, std::string("cannot load operations: ") + error);
  }

  const auto* operations = static_cast<const orvane_plugin_operation*>(table);
  orvane_plugin_operation operation = operations[method->operationIndex];
  if (operation == nullptr) {
    return Fail(kUsageError, plugin, std::string("has no ") + method->name + " operation");
  }
  const int result = operation();
  if (result != 0) {
    return Fail(kOperationFailed, plugin,
                std::string(method->name) + " returned " + std::to_string(result));
  }
  return kSucceeded;
}
