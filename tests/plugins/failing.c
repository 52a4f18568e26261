/* Its start reports failure by returning 5. */
#include <orvane/plugin.h>

static int Start(void) { return 5; }

const struct orvane_plugin_metadata metadata = {.api_version = ORVANE_PLUGIN_API_VERSION};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
