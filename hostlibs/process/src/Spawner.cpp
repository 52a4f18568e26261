#include "process/Spawner.h"

#include <atomic>

#include "VforkSpawn.h"

namespace process {

// Defined in SystemSpawner.cpp: the spawner of the real system.
Spawner& SystemSpawner();

namespace {

std::atomic<Spawner*>& Replacement() {
  static std::atomic<Spawner*> replacement{nullptr};
  return replacement;
}

}  // namespace

Spawner& Spawner::Instance() {
  Spawner* replacement = Replacement().load(std::memory_order_acquire);
  return replacement != nullptr ? *replacement : SystemSpawner();
}

void PromiseFixedSignalActions() { detail::FixSignalActions(); }

ScopedSpawner::ScopedSpawner(Spawner& spawner)
    : previous_(Replacement().exchange(&spawner, std::memory_order_acq_rel)) {}

ScopedSpawner::~ScopedSpawner() { Replacement().store(previous_, std::memory_order_release); }

}  // namespace process
