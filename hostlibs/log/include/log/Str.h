/// String helpers of the host logging library.
#pragma once

#include <cstdarg>
#include <cstddef>

/// Formats into a newly allocated string that the caller releases with
/// free(). Never returns null: running out of memory ends the process.
/// When @p length is not null it receives the length of the result.
char* Str_SafeVasprintf(std::size_t* length, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
char* Str_SafeAsprintf(std::size_t* length, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
