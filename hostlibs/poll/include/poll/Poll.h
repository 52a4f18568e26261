/// The host poll library on Linux: callbacks registered on descriptors and
/// dispatched by a poll(2) loop.
///
/// A callback belongs to one or more poll classes (a bit set); a loop
/// dispatches the callbacks whose classes meet its own. A callback is
/// called when its descriptor is readable (POLL_FLAG_READ) or writable
/// (POLL_FLAG_WRITE); a hang-up or error on the descriptor counts as both.
/// A periodic callback (POLL_FLAG_PERIODIC) stays registered after each call
/// until Poll_CallbackRemove; any other is removed just before its one call.
///
/// Registration, removal and Poll_NotifyChange may be called from any
/// thread, and from inside a callback. Callbacks run on the thread that
/// runs Poll_Loop; one thread runs the loop of a class at a time.
#pragma once

#include <pthread.h>

#include <cstdint>

/// Poll classes: a callback is dispatched by every loop whose class set
/// shares a bit with its own.
enum : std::uint32_t {
  POLL_CLASS_MAIN = 0x1,
};

/// Callback flags, combined with |.
enum : int {
  POLL_FLAG_PERIODIC = 0x01,  ///< stays registered after each call
  POLL_FLAG_READ = 0x04,      ///< call when the descriptor is readable
  POLL_FLAG_WRITE = 0x08,     ///< call when the descriptor is writable
  POLL_FLAG_SOCKET = 0x10,    ///< the descriptor is a socket (informational on Linux)
};

/// What a callback waits for. Only descriptors are supported on Linux.
enum PollEventType : int {
  POLL_EVENT_TIMER = 1,   ///< not supported: registration fails
  POLL_EVENT_DEVICE = 2,  ///< a file descriptor, given as the callback's info
};

/// Results of Poll_Callback.
enum PollResult : int {
  POLL_SUCCESS = 0,
  POLL_ERROR_NOT_INITIALISED = 1,  ///< Poll_InitDefault has not run
  POLL_ERROR_BAD_ARGUMENT = 2,     ///< no function, no class, no READ/WRITE flag, bad descriptor
  POLL_ERROR_UNSUPPORTED = 3,      ///< an event type other than POLL_EVENT_DEVICE
  POLL_ERROR_DUPLICATE = 4,        ///< the same function, data, class and event type is registered
};

using PollCallbackFunction = void (*)(void* clientData);

/// Sets up the process-wide poll state. Calling it again does nothing.
void Poll_InitDefault();

/// Registers @p function to be called with @p clientData when descriptor
/// @p info becomes ready as @p flags ask. When @p lock is not null the call
/// is made with that mutex held.
PollResult Poll_Callback(std::uint32_t classSet, int flags, PollCallbackFunction function,
                         void* clientData, PollEventType eventType, int info,
                         pthread_mutex_t* lock);

/// Unregisters the callback registered with the same class set, function,
/// client data and event type (@p flags are not compared). True when one
/// was found. A callback removed while its loop runs is never called again.
bool Poll_CallbackRemove(std::uint32_t classSet, int flags, PollCallbackFunction function,
                         void* clientData, PollEventType eventType);

/// Dispatches the callbacks of @p classSet until *@p stopFlag is non-zero
/// (checked before every turn) or, when @p timeoutMilliseconds is positive,
/// until that long has passed. Returns at once if Poll_InitDefault has not
/// run.
void Poll_Loop(std::uint32_t classSet, volatile char* stopFlag, int timeoutMilliseconds);

/// Wakes the loop of @p classSet so that it looks at its stop flag and its
/// callbacks again.
void Poll_NotifyChange(std::uint32_t classSet);
