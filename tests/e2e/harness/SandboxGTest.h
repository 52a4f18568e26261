// GoogleTest glue for the sandbox, kept out of the library so that
// sandbox-run does not depend on GoogleTest.
#pragma once

#include <gtest/gtest.h>

#include "Sandbox.h"

/// Skips the current test, with the reason, when this process cannot build
/// sandboxes (for instance when the tests do not run as root).
#define ORVANE_REQUIRE_SANDBOX()                                                    \
  do {                                                                              \
    if (auto reason = ::orvane::testing::Sandbox::Unavailable(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                       \
    }                                                                               \
  } while (0)
