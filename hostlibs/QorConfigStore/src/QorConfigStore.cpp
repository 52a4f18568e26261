#include "QorConfigStore/QorConfigStore.h"

namespace QorConfigStore {

// A general Linux host has no configuration store to tell; the host's own
// library throws when the store refuses, which these never do.
void EndAutoConf() {}

void CleanupBootState() {}

}  // namespace QorConfigStore
