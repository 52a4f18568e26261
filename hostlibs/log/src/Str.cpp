#include "log/Str.h"

#include <cstdio>
#include <cstdlib>

char* Str_SafeVasprintf(std::size_t* length, const char* format, va_list arguments) {
  char* result = nullptr;
  int written = vasprintf(&result, format, arguments);
  if (written < 0) {
    // The only failure of vasprintf is running out of memory; the callers
    // rely on never seeing null.
    std::fputs("Str_SafeVasprintf: out of memory\n", stderr);
    std::abort();
  }
  if (length != nullptr) {
    *length = static_cast<std::size_t>(written);
  }
  return result;
}

char* Str_SafeAsprintf(std::size_t* length, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* result = Str_SafeVasprintf(length, format, arguments);
  va_end(arguments);
  return result;
}
