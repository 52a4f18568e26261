// qorcli: runs a host CLI command defined in the host's command definition
// directories, as the executor runs it for JSON plugins at boot. Its bash
// completion calls it with the hidden first argument --complete (Qorcli.h).
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Qorcli.h"
#include "orvane/FixedPaths.h"

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  std::vector<std::string> directories(std::begin(orvane::paths::kQorcliDirectories),
                                       std::end(orvane::paths::kQorcliDirectories));
  try {
    return qorcli::Run(words, directories, std::cout, std::cerr);
  } catch (const std::exception& error) {
    std::cerr << "qorcli: " << error.what() << '\n';
    return 1;
  }
}
