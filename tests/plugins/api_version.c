/* A plugin whose metadata claims the API version API_VERSION, given when it
 * is built (0 and 5, both outside the supported range). */
#include <orvane/plugin.h>

static int Start(void) { return 0; }

static const char* const provided[] = {"api_version.never", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = API_VERSION,
    .provided_barriers = provided,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
