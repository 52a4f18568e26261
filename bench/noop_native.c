/*
 * A native plugin that does nothing, for the whole-boot benchmark: the same
 * shape as the example plugin (metadata, a start operation run in the
 * helper process) without its barriers, flags or output.
 */
#include <orvane/plugin.h>
#include <stddef.h>

static int Start(void) { return 0; }

static const char* const noBarriers[] = {NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .required_barriers = noBarriers,
    .provided_barriers = noBarriers,
    .plugin_version = "1.0",
    .run_once = false,
    .required_flags = NULL,
    .disabling_flags = NULL,
};

const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {
    [ORVANE_PLUGIN_OPERATION_START] = Start,
};
