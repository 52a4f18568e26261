/// Checking JSON plugin command lines against the host CLI's command
/// definitions, as the executor process would take them, without running
/// anything.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "analyze/VerifyLoader.h"
#include "analyze/VerifyPaths.h"
#include "analyze/VerifyReport.h"

namespace orvane::analyze {

/// Holds a dispatcher over the four CLI definition directories under the
/// root, in their fixed order, whose RunCommandProgram starts nothing.
class VerifyCommandChecker {
 public:
  /// Loads the definitions. A directory that is missing is skipped, as the
  /// host CLI skips it; one that cannot be read, and every definition file
  /// that does not load, is a failure in @p report.
  VerifyCommandChecker(const VerifyPaths& paths, VerifyReport& report);
  ~VerifyCommandChecker();
  VerifyCommandChecker(const VerifyCommandChecker&) = delete;
  VerifyCommandChecker& operator=(const VerifyCommandChecker&) = delete;

  /// Checks every start and host-profile command line of @p plugin (none
  /// unless it is a JSON plugin that loaded): split by the option parser,
  /// then validated by the dispatcher. A line that asks for help passes.
  /// Each line that the executor would refuse is a failure naming the
  /// plugin file, the line's place in it and the parser's or the
  /// dispatcher's errors.
  void Check(const VerifyPlugin& plugin);

 private:
  class Dispatcher;

  /// The errors of one command line; empty when the executor would run it.
  std::vector<std::string> Errors(const std::string& commandLine);
  void CheckList(const VerifyPlugin& plugin, const char* operation,
                 const std::vector<std::string>& commandLines);

  std::unique_ptr<Dispatcher> dispatcher_;
  VerifyReport& report_;
};

}  // namespace orvane::analyze
