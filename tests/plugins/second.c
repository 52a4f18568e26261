/* Starts cleanly once native.two is complete. */
#include <orvane/plugin.h>

#include "Record.h"

static int Start(void) { return Record("native_second start"); }

static const char* const required[] = {"native.two", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .required_barriers = required,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
