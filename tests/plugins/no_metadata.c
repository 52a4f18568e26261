/* Has operations but exports no metadata record. */
#include <orvane/plugin.h>

static int Start(void) { return 0; }

const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
