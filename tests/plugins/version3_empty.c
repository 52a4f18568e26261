/* An API version 3 plugin whose lists and version are all null pointers,
 * or empty. */
#include <orvane/plugin.h>

static int Start(void) { return 0; }

static const char* const none[] = {NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = 3,
    .required_barriers = none,
    .provided_barriers = NULL,
    .plugin_version = NULL,
    .run_once = false,
    .required_flags = NULL,
    .disabling_flags = none,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
