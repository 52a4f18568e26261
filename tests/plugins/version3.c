/* An API version 3 plugin with every field: two barriers each way, a plugin
 * version, run-once, required and disabling boot flags. */
#include <orvane/plugin.h>

#include "Record.h"

static int Start(void) { return Record("version3 start"); }

static const char* const required[] = {"version3.needs.a", "version3.needs.b", NULL};
static const char* const provided[] = {"version3.gives.a", "version3.gives.b", NULL};
static const char* const requiredFlags[] = {"y", "x", NULL};
static const char* const disablingFlags[] = {"nov3", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = 3,
    .required_barriers = required,
    .provided_barriers = provided,
    .plugin_version = "1.2 beta",
    .run_once = true,
    .required_flags = requiredFlags,
    .disabling_flags = disablingFlags,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
