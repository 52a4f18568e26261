#include "orvaner/cli/QorcliDispatcher.h"

#include <exception>
#include <string>

#include "log/Log.h"
#include "orvane/FixedPaths.h"

namespace orvane {

QorcliDispatcher::QorcliDispatcher() {
  for (const char* directory : paths::kQorcliDirectories) {
    try {
      AddExternalDirectory(directory);
    } catch (const std::exception& error) {
      // A host without one of the directories still runs the others' commands.
      Log_Level(LOG_LEVEL_ERROR, "unable to add external directory to the qorcli dispatcher: %s\n",
                error.what());
    }
  }
  // A broken definition file is skipped by the library; say which, so that
  // the command it defined is not silently missing.
  for (const std::string& problem : GetLoadErrors()) {
    Log_Level(LOG_LEVEL_WARNING, "qorcli command definitions skipped: %s\n", problem.c_str());
  }
}

QorcliDispatcher::~QorcliDispatcher() = default;

QorcliDispatcher& QorcliDispatcher::Instance() {
  // Built on first use; a constructor that throws leaves it unbuilt, and the
  // next call tries again. Never destroyed, like every process-wide object.
  static auto* instance = new QorcliDispatcher;
  return *instance;
}

}  // namespace orvane
