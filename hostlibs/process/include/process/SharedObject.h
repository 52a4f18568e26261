/// Opening a shared object to read its declarations.
#pragma once

#include <string>

namespace process {

/// Opens the shared object at @p path with lazy binding and its symbols
/// global, as a plugin object is opened. Null with @p error set to the
/// loader's reason when it cannot be opened. It stays loaded unless closed.
void* OpenSharedObject(const std::string& path, std::string& error);

/// The address of @p symbol in @p handle. Fills @p error with the loader's
/// reason and returns null when there is no such symbol; a symbol that is
/// there may still have the address null, so only @p error tells.
void* FindSymbol(void* handle, const char* symbol, std::string& error);

/// Closes what OpenSharedObject opened.
void CloseSharedObject(void* handle);

}  // namespace process
