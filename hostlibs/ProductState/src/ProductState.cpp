#include "ProductState/ProductState.h"

const char* ProductState_GetName() { return "orvane"; }

const char* ProductState_GetVersion() { return ORVANE_VERSION; }

const char* ProductState_GetBuildNumberString() { return "build-" ORVANE_BUILD_NUMBER; }

const char* ProductState_GetCompilationOption() {
#ifdef NDEBUG
  return "release";
#else
  return "debug";
#endif
}
