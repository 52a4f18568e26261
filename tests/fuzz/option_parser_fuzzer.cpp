// One host CLI command line, split and parsed by OptionParser::ParseString
// as the executor and qorcli parse theirs; help goes to a stream that
// discards it.
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"
#include "FuzzSupport.h"

namespace {

CppTools::AutoCli::Dispatcher* definitions = nullptr;
std::ostream* helpStream = nullptr;

// What a line that parsed without errors must have given.
void CheckParsed(const CppTools::AutoCli::OptionParser& parser) {
  fuzzing::Check(!parser.GetCommandPath().empty(), "a parsed line has a command path");
  for (const std::string& word : parser.GetCommandPath()) {
    fuzzing::Check(!word.empty() && word[0] != '-', "path words are neither empty nor options");
  }
  for (const auto& [name, value] : parser.GetCommandParameters()) {
    // A long name ("enabled"), or a short one that keeps its "-" ("-e"):
    // nothing the dispatcher could take for the other kind.
    fuzzing::Check(!name.empty() && !(name[0] == '-' && (name.size() < 2 || name[1] == '-')),
                   "every parameter has a long or a short name");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  definitions = new CppTools::AutoCli::Dispatcher;
  fuzzing::LoadFuzzDefinitions(*definitions);
  helpStream = new std::ostream(new fuzzing::DiscardingBuffer);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  CppTools::AutoCli::OptionParser parser(definitions, helpStream);
  const bool help = parser.ParseString(line);
  const bool wellFormed = parser.GetParseErrors().empty();
  if (line.find('\0') != std::string::npos) {
    fuzzing::Check(!help && !wellFormed, "a line with a NUL byte is refused");
  }
  if (help) {
    fuzzing::Check(wellFormed, "a help request carries no parse errors");
  } else if (wellFormed) {
    CheckParsed(parser);
  }
  return 0;
}
