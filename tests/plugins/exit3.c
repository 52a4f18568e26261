/* Its start ends the process with exit status 3. It provides exit3.done. */
#include <orvane/plugin.h>
#include <stdlib.h>

static int Start(void) { exit(3); }

static const char* const provided[] = {"exit3.done", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .provided_barriers = provided,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
