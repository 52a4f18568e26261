#include "log/Panic.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "log/Log.h"
#include "log/Str.h"

void Panic(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* message = Str_SafeVasprintf(nullptr, format, arguments);
  va_end(arguments);
  // Standard error first and unbuffered: it is the one channel that needs
  // nothing of the logging library, which may be what broke.
  std::fputs(message, stderr);
  std::fflush(stderr);
  Log_Level(LOG_LEVEL_ERROR, "%s", message);
  std::free(message);
  std::abort();
}
