/* An API version 2 plugin with a host-profile operation; each operation
 * records which one ran. */
#include <orvane/plugin.h>

#include "Record.h"

static int Start(void) { return Record("host_profile start"); }
static int ApplyHostProfile(void) { return Record("host_profile apply"); }

const struct orvane_plugin_metadata metadata = {.api_version = 2};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start,
                                                                           ApplyHostProfile};
