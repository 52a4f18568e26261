#include "poll/Poll.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

namespace {

struct Registration {
  std::uint64_t id;
  std::uint32_t classSet;
  int flags;
  PollCallbackFunction function;
  void* clientData;
  PollEventType eventType;
  int descriptor;
  pthread_mutex_t* lock;
};

/// The process-wide poll state: the registered callbacks and the eventfd
/// that wakes a sleeping loop.
struct PollState {
  std::mutex mutex;
  std::vector<Registration> registrations;
  std::uint64_t nextId = 1;
  int wakeDescriptor = -1;
};

// Created by Poll_InitDefault and never destroyed: callbacks may still be
// registered from other threads while the process ends. Atomic because a
// thread that did not call Poll_InitDefault itself may read it.
std::atomic<PollState*> pollState{nullptr};
std::once_flag pollStateOnce;

PollState* State() { return pollState.load(std::memory_order_acquire); }

short PollEventsFor(int flags) {
  short events = 0;
  if (flags & POLL_FLAG_READ) events |= POLLIN;
  if (flags & POLL_FLAG_WRITE) events |= POLLOUT;
  return events;
}

void Wake(const PollState& state) {
  const std::uint64_t one = 1;
  // A full counter already wakes the loop, so a failed write loses nothing.
  [[maybe_unused]] ssize_t written = write(state.wakeDescriptor, &one, sizeof one);
}

void DrainWakeups(const PollState& state) {
  std::uint64_t count = 0;
  [[maybe_unused]] ssize_t readBytes = read(state.wakeDescriptor, &count, sizeof count);
}

/// One turn's view of the registrations: the descriptors to wait on (the
/// wake-up descriptor first) and the registration behind each of the others.
struct Turn {
  std::vector<pollfd> descriptors;
  std::vector<std::uint64_t> registrationIds;
};

Turn PrepareTurn(PollState& state, std::uint32_t classSet) {
  Turn turn;
  turn.descriptors.push_back({state.wakeDescriptor, POLLIN, 0});
  std::lock_guard<std::mutex> guard(state.mutex);
  for (const Registration& registration : state.registrations) {
    if (registration.classSet & classSet) {
      turn.descriptors.push_back({registration.descriptor, PollEventsFor(registration.flags), 0});
      turn.registrationIds.push_back(registration.id);
    }
  }
  return turn;
}

/// Takes the registration out for its call: a one-shot callback is removed
/// first, a descriptor that is no longer open drops its registration without
/// a call (it could never become ready again). Empty when the registration
/// was removed since the turn began, or dropped here.
std::optional<Registration> ClaimForCall(PollState& state, std::uint64_t id, short returned) {
  std::lock_guard<std::mutex> guard(state.mutex);
  auto found = std::find_if(state.registrations.begin(), state.registrations.end(),
                            [id](const Registration& r) { return r.id == id; });
  if (found == state.registrations.end()) return std::nullopt;
  Registration registration = *found;
  if ((returned & POLLNVAL) || !(registration.flags & POLL_FLAG_PERIODIC)) {
    state.registrations.erase(found);
  }
  if (returned & POLLNVAL) return std::nullopt;
  return registration;
}

void Call(const Registration& registration) {
  if (registration.lock != nullptr) pthread_mutex_lock(registration.lock);
  registration.function(registration.clientData);
  if (registration.lock != nullptr) pthread_mutex_unlock(registration.lock);
}

/// Milliseconds for poll(2): -1 without a deadline, else what is left (0 or
/// more), rounded up so that the loop never returns before its deadline.
int MillisecondsLeft(const std::optional<std::chrono::steady_clock::time_point>& deadline) {
  if (!deadline) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

}  // namespace

void Poll_InitDefault() {
  std::call_once(pollStateOnce, [] {
    auto* state = new PollState;
    state->wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state->wakeDescriptor < 0) {
      delete state;
      return;  // the library stays uninitialised; registrations report it
    }
    pollState.store(state, std::memory_order_release);
  });
}

PollResult Poll_Callback(std::uint32_t classSet, int flags, PollCallbackFunction function,
                         void* clientData, PollEventType eventType, int info,
                         pthread_mutex_t* lock) {
  PollState* state = State();
  if (state == nullptr) return POLL_ERROR_NOT_INITIALISED;
  if (eventType != POLL_EVENT_DEVICE) return POLL_ERROR_UNSUPPORTED;
  if (function == nullptr || classSet == 0 || PollEventsFor(flags) == 0 || info < 0) {
    return POLL_ERROR_BAD_ARGUMENT;
  }
  {
    std::lock_guard<std::mutex> guard(state->mutex);
    for (const Registration& registration : state->registrations) {
      if (registration.classSet == classSet && registration.function == function &&
          registration.clientData == clientData && registration.eventType == eventType) {
        return POLL_ERROR_DUPLICATE;
      }
    }
    state->registrations.push_back(
        {state->nextId++, classSet, flags, function, clientData, eventType, info, lock});
  }
  Wake(*state);  // a sleeping loop must start watching the new descriptor
  return POLL_SUCCESS;
}

bool Poll_CallbackRemove(std::uint32_t classSet, int /*flags*/, PollCallbackFunction function,
                         void* clientData, PollEventType eventType) {
  PollState* state = State();
  if (state == nullptr) return false;
  bool removed = false;
  {
    std::lock_guard<std::mutex> guard(state->mutex);
    auto found = std::find_if(state->registrations.begin(), state->registrations.end(),
                              [&](const Registration& r) {
                                return r.classSet == classSet && r.function == function &&
                                       r.clientData == clientData && r.eventType == eventType;
                              });
    if (found != state->registrations.end()) {
      state->registrations.erase(found);
      removed = true;
    }
  }
  if (removed) Wake(*state);
  return removed;
}

void Poll_Loop(std::uint32_t classSet, volatile char* stopFlag, int timeoutMilliseconds) {
  PollState* state = State();
  if (state == nullptr) return;
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (timeoutMilliseconds > 0) {
    deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
  }
  while (*stopFlag == 0) {
    Turn turn = PrepareTurn(*state, classSet);
    const int wait = MillisecondsLeft(deadline);
    if (deadline && wait == 0) return;
    const int ready = poll(turn.descriptors.data(), turn.descriptors.size(), wait);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return;  // the descriptor set itself is unusable: waiting again would spin
    }
    if (turn.descriptors[0].revents != 0) DrainWakeups(*state);
    for (std::size_t i = 1; i < turn.descriptors.size() && *stopFlag == 0; ++i) {
      const short returned = turn.descriptors[i].revents;
      if (returned == 0) continue;
      if (auto registration = ClaimForCall(*state, turn.registrationIds[i - 1], returned)) {
        Call(*registration);
      }
    }
  }
}

void Poll_NotifyChange(std::uint32_t /*classSet*/) {
  // One wake-up descriptor serves every class: a loop woken without reason
  // only looks at its flag and descriptors once more.
  if (PollState* state = State()) Wake(*state);
}
