/// The process-wide run options record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvane {

/// What the command line asked of this run, read by every part of the
/// program that needs an option. main fills it before any other thread
/// exists; afterwards it is only read.
struct RunOptions {
  bool verbose = false;
  bool parallel = false;  ///< cleared by --interactive and by the stateless check
  bool randomize = false;
  bool interactive = false;  ///< cleared by --parallel
  bool trace = false;
  std::uint32_t threadCount = 1;
  std::int64_t randomSeed;      ///< the creation time in seconds unless --randomize=seed
  std::string pluginDirectory;  ///< absolute; filled just before loading
  std::vector<std::string> disabledPlugins;
  std::vector<std::string> interactiveModeRequires;
  std::string method;
  bool invoke = false;
  bool daemonWait = false;
  std::uint32_t daemonWaitTimeout = 40;  ///< seconds
  char** environment = nullptr;          ///< the environment handed to main

  /// The one record of the process, created on first use and never destroyed.
  static RunOptions& Instance();

  /// A record with the defaults; Instance() holds one of these.
  RunOptions();
};

}  // namespace orvane
