/// The host configuration store, as far as orvane uses it: the two calls
/// that close boot-time configuration.
#pragma once

namespace QorConfigStore {

/// Tells the store that automatic (boot-time) configuration has ended.
/// Linux keeps no such state: nothing happens and nothing is thrown.
void EndAutoConf();

/// Removes what the store kept only for the boot. Linux keeps no such
/// state: nothing happens and nothing is thrown.
void CleanupBootState();

}  // namespace QorConfigStore
