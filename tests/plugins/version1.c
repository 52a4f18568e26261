/* An API version 1 plugin that nonetheless fills the version 3 fields and
 * has a host-profile operation: version 1 knows neither. */
#include <orvane/plugin.h>

#include "Record.h"

static int Start(void) { return 0; }
static int ApplyHostProfile(void) { return Record("version1 host profile"); }

static const char* const flags[] = {"f", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = 1,
    .plugin_version = "9.9",
    .run_once = true,
    .required_flags = flags,
    .disabling_flags = flags,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start,
                                                                           ApplyHostProfile};
