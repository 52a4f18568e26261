#include "orvaner/plugins/ConsoleTerminal.h"

#include <fcntl.h>
#include <linux/vt.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>

#include "log/Log.h"

namespace orvane::terminal {
namespace {

constexpr const char* kResetSequence = "\x1b[0m";
constexpr int kAnsiForegroundBase = 30;

}  // namespace

void WriteColour(std::FILE* output, Colour colour) {
  if (colour == Colour::kReset) {
    std::fputs(kResetSequence, output);
  } else {
    std::fprintf(output, "\x1b[%dm", static_cast<int>(colour) + kAnsiForegroundBase);
  }
}

// The attributes are changed from what was read, whatever that was, and
// set back the same way afterwards.
termios EnterSingleKeyMode(int input) {
  termios attributes{};
  if (::tcgetattr(input, &attributes) != 0) {
    Log_Level(LOG_LEVEL_ERROR, "unable to get terminal io state.\n");
  }
  attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  if (::tcsetattr(input, TCSANOW, &attributes) != 0) {
    Log_Level(LOG_LEVEL_ERROR, "unable to set terminal io state.\n");
  }
  return attributes;
}

void LeaveSingleKeyMode(int input, termios attributes) {
  attributes.c_lflag |= ICANON | ECHO;
  if (::tcsetattr(input, TCSANOW, &attributes) != 0) {
    Log_Level(LOG_LEVEL_ERROR, "unable to restore terminal io state.\n");
  }
}

char ReadLowerCaseKey(int input) {
  for (;;) {
    char typed = 0;
    if (::read(input, &typed, 1) != 1) continue;
    return static_cast<char>(std::tolower(static_cast<unsigned char>(typed)));
  }
}

void ActivateVirtualTerminal(const char* console, int terminal) {
  // Opened only for the ioctls: it must not become our controlling terminal.
  const int device = ::open(console, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (device < 0) return;
  // Waiting is tried only when the activation itself failed.
  if (::ioctl(device, VT_ACTIVATE, terminal) != 0) {
    ::ioctl(device, VT_WAITACTIVE, terminal);
  }
  ::close(device);
}

}  // namespace orvane::terminal
