#include "Qorcli.h"

#include <ostream>
#include <sstream>
#include <system_error>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"

namespace qorcli {
namespace {

constexpr const char* kErrorPrefix = "qorcli: ";
constexpr const char* kDispatcherName = "qorcli";

void LoadDefinitions(CppTools::AutoCli::Dispatcher& dispatcher,
                     const std::vector<std::string>& directories, std::ostream& err) {
  for (const std::string& directory : directories) {
    try {
      dispatcher.AddExternalDirectory(directory);
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::no_such_file_or_directory) {
        err << kErrorPrefix << error.what() << '\n';
      }
    }
  }
  for (const std::string& error : dispatcher.GetLoadErrors()) {
    err << kErrorPrefix << error << '\n';
  }
}

}  // namespace

int Run(const std::vector<std::string>& words, const std::vector<std::string>& directories,
        std::ostream& out, std::ostream& err) {
  CppTools::AutoCli::Dispatcher dispatcher;
  LoadDefinitions(dispatcher, directories, err);
  if (words.empty()) {
    dispatcher.WriteHelp({}, out);
    return 0;
  }

  std::ostringstream help;
  CppTools::AutoCli::OptionParser parser(&dispatcher, &help);
  if (parser.ParseWords(words)) {
    if (dispatcher.IsKnownPath(parser.GetCommandPath())) {
      out << help.str();
      return 0;
    }
    err << kErrorPrefix << help.str();
    return 1;
  }
  if (!parser.GetParseErrors().empty()) {
    for (const std::string& error : parser.GetParseErrors()) {
      err << kErrorPrefix << error << '\n';
    }
    return 1;
  }

  auto output = CppTools::AutoCli::CommandOutput::New();
  dispatcher.ExecuteCommand(parser.MakeCommandInput(kDispatcherName), output);
  for (const std::string& error : output->GetErrors()) {
    err << kErrorPrefix << error << '\n';
  }
  return output->HasError() ? 1 : 0;
}

}  // namespace qorcli
