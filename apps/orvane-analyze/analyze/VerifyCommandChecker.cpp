#include "analyze/VerifyCommandChecker.h"

#include <ostream>
#include <system_error>
#include <utility>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"
#include "orvane/FixedPaths.h"
#include "orvaner/cli/QorcliExecutor.h"

namespace orvane::analyze {
namespace {

// Where a description keeps its command lists.
constexpr const char* kOperationsKey = "operations";
constexpr const char* kStartKey = "start";
constexpr const char* kHostProfileKey = "apply_host_profile";

}  // namespace

/// Validates a call like the host CLI's dispatcher but reports every
/// program as run successfully without starting it.
class VerifyCommandChecker::Dispatcher : public CppTools::AutoCli::Dispatcher {
 protected:
  CppTools::AutoCli::ProgramResult RunCommandProgram(
      const std::vector<std::string>&, const std::vector<std::pair<std::string, std::string>>&,
      const std::vector<std::string>&) override {
    return {};
  }
};

VerifyCommandChecker::VerifyCommandChecker(const VerifyPaths& paths, VerifyReport& report)
    : dispatcher_(std::make_unique<Dispatcher>()), report_(report) {
  for (const char* directory : paths::kQorcliDirectories) {
    try {
      dispatcher_->AddExternalDirectory(paths.Under(directory));
      ++report_.Counts().definitionDirectories;
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::no_such_file_or_directory) {
        report_.AddFailure(VerifyKind::CliDefinitions, directory, error.what());
      }
    }
  }
  for (const std::string& problem : dispatcher_->GetLoadErrors()) {
    report_.AddFailure(VerifyKind::CliDefinitions, "", problem);
  }
}

VerifyCommandChecker::~VerifyCommandChecker() = default;

void VerifyCommandChecker::Check(const VerifyPlugin& plugin) {
  if (plugin.kind != VerifyPlugin::Kind::JSON || plugin.refused) {
    return;
  }
  CheckList(plugin, kStartKey, plugin.startCommands);
  CheckList(plugin, kHostProfileKey, plugin.hostProfileCommands);
}

void VerifyCommandChecker::CheckList(const VerifyPlugin& plugin, const char* operation,
                                     const std::vector<std::string>& commandLines) {
  for (std::size_t index = 0; index < commandLines.size(); ++index) {
    ++report_.Counts().commandLines;
    const std::vector<std::string> errors = Errors(commandLines[index]);
    if (errors.empty()) {
      continue;
    }
    VerifyFinding finding;
    finding.severity = VerifySeverity::Failure;
    finding.kind = VerifyKind::CommandLine;
    finding.file = plugin.file;
    finding.position =
        std::string(kOperationsKey) + "." + operation + "[" + std::to_string(index) + "]";
    finding.text = commandLines[index];
    for (const std::string& error : errors) {
      finding.text += "\n" + error;
    }
    report_.Add(std::move(finding));
  }
}

std::vector<std::string> VerifyCommandChecker::Errors(const std::string& commandLine) {
  // The executor writes the help a line asks for to its log; here it goes
  // nowhere.
  std::ostream discarded(nullptr);
  CppTools::AutoCli::OptionParser parser(dispatcher_.get(), &discarded);
  if (parser.ParseString(commandLine)) {
    return {};
  }
  if (!parser.GetParseErrors().empty()) {
    return parser.GetParseErrors();
  }
  auto output = CppTools::AutoCli::CommandOutput::New();
  dispatcher_->ExecuteCommand(parser.MakeCommandInput(kExecutorDispatcherName), output);
  return output->GetErrors();
}

}  // namespace orvane::analyze
