/* Starts cleanly and provides native.one. */
#include <orvane/plugin.h>

#include "Record.h"

static int Start(void) { return Record("native_first start"); }

static const char* const provided[] = {"native.one", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .provided_barriers = provided,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
