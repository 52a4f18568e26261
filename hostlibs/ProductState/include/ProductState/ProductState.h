/// What the host reports about the installed product. On Linux these
/// answer from the build itself.
#pragma once

const char* ProductState_GetName();
const char* ProductState_GetVersion();
const char* ProductState_GetBuildNumberString();
/// "release" or "debug".
const char* ProductState_GetCompilationOption();
