/*
 * The binary interface of a native orvane plugin.
 *
 * A native plugin is a shared object in the plugin directory that exports
 * two data symbols:
 *
 *   metadata    a struct orvane_plugin_metadata: the API version, the
 *               barriers the plugin requires and provides and, from API
 *               version 3 on, its plugin version, run-once flag and boot
 *               flags;
 *   operations  a table of ORVANE_PLUGIN_OPERATION_COUNT operations: start,
 *               then apply_host_profile (NULL when the plugin has none).
 *
 * The orchestrator only reads the declarations; each operation is called in
 * a fresh helper process, so a crash or a hang there cannot harm the boot.
 * An operation returns 0 on success and anything else on failure.
 *
 * Plain C, usable from C and C++. The layout of the metadata record is part
 * of the interface (64-bit, natural alignment) and is checked below.
 *
 * A minimal plugin:
 *
 *   #include <orvane/plugin.h>
 *
 *   static int start(void) { return 0; }
 *   static const char* const provided[] = {"network", NULL};
 *
 *   const struct orvane_plugin_metadata metadata = {
 *       .api_version = ORVANE_PLUGIN_API_VERSION,
 *       .provided_barriers = provided,
 *   };
 *   const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {start, NULL};
 */
#ifndef ORVANE_PLUGIN_H
#define ORVANE_PLUGIN_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The API versions the orchestrator accepts; write the newest. */
#define ORVANE_PLUGIN_API_VERSION_MIN 1
#define ORVANE_PLUGIN_API_VERSION_MAX 4
#define ORVANE_PLUGIN_API_VERSION ORVANE_PLUGIN_API_VERSION_MAX

/* Positions in the operations table. */
#define ORVANE_PLUGIN_OPERATION_START 0
#define ORVANE_PLUGIN_OPERATION_APPLY_HOST_PROFILE 1
#define ORVANE_PLUGIN_OPERATION_COUNT 2

/* One operation of a plugin: 0 on success, anything else on failure. */
typedef int (*orvane_plugin_operation)(void);

/*
 * What a plugin declares. Every list is a NULL-terminated array of C
 * strings; a NULL list pointer means an empty list.
 */
struct orvane_plugin_metadata {
  /* 1 to 4. Versions 1 and 2 are read up to provided_barriers only. */
  uint32_t api_version;
  /* Barriers that must be complete before the plugin starts. */
  const char* const* required_barriers;
  /* Barriers that complete only after the plugin. */
  const char* const* provided_barriers;

  /* From API version 3 on. */
  const char* plugin_version; /* may be NULL */
  bool run_once;              /* run only once per plugin version */
  const char* const* required_flags;  /* boot flags that must all be set */
  const char* const* disabling_flags; /* boot flags of which any disables it */
};

#ifdef __cplusplus
#define ORVANE_PLUGIN_STATIC_ASSERT static_assert
#else
#define ORVANE_PLUGIN_STATIC_ASSERT _Static_assert
#endif

ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, api_version) == 0,
                            "api_version at offset 0");
ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, required_barriers) == 8,
                            "required_barriers at offset 8");
ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, provided_barriers) == 16,
                            "provided_barriers at offset 16");
ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, plugin_version) == 24,
                            "plugin_version at offset 24");
ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, run_once) == 32,
                            "run_once at offset 32");
ORVANE_PLUGIN_STATIC_ASSERT(sizeof(bool) == 1, "run_once is one byte");
ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, required_flags) == 40,
                            "required_flags at offset 40");
ORVANE_PLUGIN_STATIC_ASSERT(offsetof(struct orvane_plugin_metadata, disabling_flags) == 48,
                            "disabling_flags at offset 48");
ORVANE_PLUGIN_STATIC_ASSERT(sizeof(struct orvane_plugin_metadata) == 56,
                            "the metadata record is 56 bytes");

#undef ORVANE_PLUGIN_STATIC_ASSERT

/* The two symbols a plugin defines, exported whatever its default visibility. */
#define ORVANE_PLUGIN_EXPORT __attribute__((visibility("default")))

extern ORVANE_PLUGIN_EXPORT const struct orvane_plugin_metadata metadata;
extern ORVANE_PLUGIN_EXPORT const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT];

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_PLUGIN_H */
