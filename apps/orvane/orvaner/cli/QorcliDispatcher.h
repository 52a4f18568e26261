/// The dispatcher that the executor process hands every parsed command to.
#pragma once

#include "CppTools/AutoCli/Dispatcher.h"

namespace orvane {

/// The host CLI dispatcher with the host's four command-definition
/// directories added, in their fixed order, when it is built. A directory
/// that cannot be read is logged and skipped.
class QorcliDispatcher : public CppTools::AutoCli::Dispatcher {
 public:
  /// Adds the four directories. An exception that is not a std::exception
  /// propagates and the dispatcher is not built.
  QorcliDispatcher();
  ~QorcliDispatcher() override;

  /// The process-wide dispatcher, built on the first call and never
  /// replaced or destroyed. The executor's single event-loop thread makes
  /// every call.
  static QorcliDispatcher& Instance();
};

}  // namespace orvane
