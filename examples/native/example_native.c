/*
 * An example native plugin: it brings up a (pretend) network interface.
 *
 * Built as libexample.so; dropped into /usr/libexec/orvane/plugins it loads
 * as the plugin "example". It runs after the barrier "storage" and before
 * "network", once per plugin version, unless the boot flag "nonetwork" is
 * given. Its operations run in the helper process nativeExecutor, so they
 * may block, print or even crash without harming the rest of the boot.
 */
#include <orvane/plugin.h>
#include <stdio.h>

/* Start: return 0 when the work is done, anything else when it failed. The
 * orchestrator reports a failure in the kernel log and carries on. */
static int Start(void) {
  puts("example: network interface up");
  return 0;
}

/* Applying the host profile, chosen instead of Start when the host has a
 * profile (API version 2 and later). */
static int ApplyHostProfile(void) {
  puts("example: network settings taken from the host profile");
  return 0;
}

static const char* const requiredBarriers[] = {"storage", NULL};
static const char* const providedBarriers[] = {"network", NULL};
static const char* const disablingFlags[] = {"nonetwork", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .required_barriers = requiredBarriers,
    .provided_barriers = providedBarriers,
    .plugin_version = "1.0",
    .run_once = false,
    .required_flags = NULL,
    .disabling_flags = disablingFlags,
};

const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {
    [ORVANE_PLUGIN_OPERATION_START] = Start,
    [ORVANE_PLUGIN_OPERATION_APPLY_HOST_PROFILE] = ApplyHostProfile,
};
