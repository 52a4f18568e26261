#include "orvaner/Logging.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "HostCtl/HostCtlException.h"
#include "ProductState/ProductState.h"
#include "ZelkCtl/Sysinfo.h"
#include "log/Dictionary.h"
#include "log/Log.h"
#include "log/Str.h"
#include "orvaner/Exception.h"

namespace orvane {
namespace {

struct DictionaryDeleter {
  void operator()(Dictionary* dictionary) const { Dictionary_Free(dictionary); }
};
using DictionaryPointer = std::unique_ptr<Dictionary, DictionaryDeleter>;

// Messages at or below this level are also copied to standard error; orvane
// logs nothing at 0, so standard error stays the program's own.
constexpr int kStderrLevel = 0;
constexpr std::uint32_t kAllLogGroups = 0xFFFFFFFF;

void AddStandardOutputChannel(const char* identifier, Dictionary* settings) {
  Dictionary_Clear(settings);
  Dict_SetString(settings, "log.stdoutLevel", "info");
  Dict_SetBool(settings, "log.useTimeStamps.stdio", true);
  Dict_SetBool(settings, "log.useMilliseconds.stdio", true);
  LogOutput* standardOutput = Log_NewStdioOutput(identifier, settings);
  if (standardOutput == nullptr) {
    throw Exception("Failed creating standard out logging interface.\n");
  }
  if (!Log_AddOutput(standardOutput)) {
    throw Exception("Failed adding standard out logging interface.\n");
  }
}

std::function<void(const std::string&)>& ReplacementAlertSink() {
  static std::function<void(const std::string&)> sink;
  return sink;
}

void WriteKernelLog(const char* message) {
  try {
    ZelkCtl::Util::Sysinfo kernelLog(ZelkCtl::Util::Sysinfo::Node::KernelLog);
    kernelLog.AddInput(message);
    kernelLog.Set();
  } catch (const HostCtl::Lib::HostCtlException& error) {
    syslog(LOG_ERR, "Exception occurred while logging msg: %s", error.what());
    syslog(LOG_ERR, "%s", message);
  } catch (...) {
    syslog(LOG_ERR, "Unexpected exception while logging msg");
    syslog(LOG_ERR, "%s", message);
  }
}

}  // namespace

void InitLogging(const char* identifier) {
  std::fflush(stdout);
  std::setvbuf(stdout, nullptr, _IONBF, 0);

  DictionaryPointer settings(Dictionary_Create());
  Dict_SetString(settings.get(), "log.syslogID", identifier);
  Dict_SetString(settings.get(), "log.syslogLevel", "info");
  Log_SetProductInfo(ProductState_GetName(), ProductState_GetVersion(),
                     ProductState_GetBuildNumberString(), ProductState_GetCompilationOption());
  if (!Log_InitWithSyslogInt(identifier, settings.get())) {
    throw Exception("Failed to initialize logging to syslog.\n");
  }
  AddStandardOutputChannel(identifier, settings.get());
  Log_SetStderrLevel(kStderrLevel, kAllLogGroups);
}

void LogAlert(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* message = Str_SafeVasprintf(nullptr, format, arguments);
  va_end(arguments);
  const auto& sink = ReplacementAlertSink();
  if (sink) {
    try {
      sink(message);
    } catch (...) {
      // A test's sink must not make the alert logger throw either.
    }
  } else {
    WriteKernelLog(message);
  }
  std::free(message);
}

void ReplaceAlertLogSink(std::function<void(const std::string&)> sink) {
  ReplacementAlertSink() = std::move(sink);
}

}  // namespace orvane
