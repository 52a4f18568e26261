/* Declares itself but exports no operations table. */
#include <orvane/plugin.h>

const struct orvane_plugin_metadata metadata = {.api_version = ORVANE_PLUGIN_API_VERSION};
