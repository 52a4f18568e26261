/* The SDK header compiles alone as strict C11; its layout checks run here
 * as C as well as in every C++ file that includes it. A plugin can define
 * both symbols with the declared types. */
#include <orvane/plugin.h>

static int Start(void) { return 0; }

static const char* const names[] = {"a", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .required_barriers = names,
    .provided_barriers = names,
    .plugin_version = "1",
    .run_once = true,
    .required_flags = names,
    .disabling_flags = names,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};

_Static_assert(ORVANE_PLUGIN_API_VERSION_MIN == 1 && ORVANE_PLUGIN_API_VERSION_MAX == 4,
               "the supported API versions");
