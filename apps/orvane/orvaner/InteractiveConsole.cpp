#include "orvaner/InteractiveConsole.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/vt.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "log/Log.h"

namespace orvane {
namespace {

// ANSI colour numbers of the prompt; kReset is written as its own sequence.
enum class Colour : int {
  kRed = 1,
  kGreen = 2,
  kYellow = 3,
  kMagenta = 5,
  kCyan = 6,
  kWhite = 7,
  kReset = 8,
};

constexpr const char* kHideCursor = "\x1b[?25l";
constexpr const char* kShowCursor = "\x1b[?25h";
constexpr const char* kEraseLine = "\x1b[2K";
constexpr const char* kResetSequence = "\x1b[0m";
constexpr int kAnsiForegroundBase = 30;

/// One choice of the prompt, in the order the prompt shows them.
struct Choice {
  char key;
  const char* label;
  Colour colour;
};

constexpr Choice kChoices[] = {
    {InteractiveConsole::kContinue, "(c)ontinue", Colour::kMagenta},
    {InteractiveConsole::kExecute, "(e)xecute", Colour::kGreen},
    {InteractiveConsole::kTroubleshoot, "(t)roubleshoot", Colour::kYellow},
    {InteractiveConsole::kSkip, "(s)kip", Colour::kRed},
};

bool IsChoice(char key) {
  for (const Choice& choice : kChoices) {
    if (choice.key == key) return true;
  }
  return false;
}

void WriteColour(std::FILE* output, Colour colour) {
  if (colour == Colour::kReset) {
    std::fputs(kResetSequence, output);
  } else {
    std::fprintf(output, "\x1b[%dm", static_cast<int>(colour) + kAnsiForegroundBase);
  }
}

/// The four choices separated by tabs, each followed by a reset; @p colourOf
/// gives each its colour.
template <typename ColourOf>
void WriteChoices(std::FILE* output, ColourOf colourOf) {
  bool first = true;
  for (const Choice& choice : kChoices) {
    if (!first) std::fputc('\t', output);
    first = false;
    WriteColour(output, colourOf(choice));
    std::fputs(choice.label, output);
    WriteColour(output, Colour::kReset);
  }
}

InteractiveConsole*& ReplacementConsole() {
  static InteractiveConsole* console = nullptr;
  return console;
}

// In the shell's child, between fork and exec.
void CloseInheritedDescriptors() {
  const long openMax = ::sysconf(_SC_OPEN_MAX);
  const int firstToClose = STDERR_FILENO + 1;
  if (openMax <= firstToClose) return;
  if (::close_range(firstToClose, static_cast<unsigned>(openMax - 1), 0) == 0) return;
  for (long descriptor = firstToClose; descriptor < openMax; ++descriptor) {
    ::close(static_cast<int>(descriptor));
  }
}

}  // namespace

char InteractiveConsole::Prompt(const std::string& pluginName) {
  std::FILE* output = devices_.output;
  Write("current plugin: ");
  WriteColour(output, Colour::kCyan);
  Write(pluginName.c_str());
  Write("\n");
  Flush();
  // No reset after the name: its colour runs on until the first choice's.
  WriteChoices(output, [](const Choice& choice) { return choice.colour; });
  Flush();
  Write(kHideCursor);
  Flush();

  // Single keys without echo: canonical input and echo go off while the
  // prompt reads, and on again afterwards (whatever they were before).
  termios attributes{};
  if (::tcgetattr(devices_.input, &attributes) != 0) {
    Log_Level(LOG_LEVEL_ERROR, "unable to get terminal io state.\n");
  }
  attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  if (::tcsetattr(devices_.input, TCSANOW, &attributes) != 0) {
    Log_Level(LOG_LEVEL_ERROR, "unable to set terminal io state.\n");
  }
  const char key = ReadChoice();
  attributes.c_lflag |= ICANON | ECHO;
  if (::tcsetattr(devices_.input, TCSANOW, &attributes) != 0) {
    Log_Level(LOG_LEVEL_ERROR, "unable to restore terminal io state.\n");
  }
  Write(kShowCursor);
  Flush();
  return key;
}

void InteractiveConsole::ShowChoice(char key) {
  Write("\r");
  WriteChoices(devices_.output, [key](const Choice& choice) {
    return choice.key == key ? choice.colour : Colour::kWhite;
  });
  Write("\n");
  Flush();
}

void InteractiveConsole::SwitchConsole(int terminal) {
  // Opened only for the ioctls: it must not become our controlling terminal.
  const int console = ::open(devices_.console, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (console < 0) return;
  // Waiting is tried only when the activation itself failed.
  if (::ioctl(console, VT_ACTIVATE, terminal) != 0) {
    ::ioctl(console, VT_WAITACTIVE, terminal);
  }
  ::close(console);
}

void InteractiveConsole::RunTroubleshootingShell() {
  Flush();
  const pid_t shell = ::fork();
  if (shell < 0) {
    Log_Level(LOG_LEVEL_ERROR, "failed to fork - unable to launch troubleshooting shell: %s\n",
              std::strerror(errno));
    return;
  }
  if (shell == 0) {
    // The shell runs on the console's own streams; they are the standard
    // ones except when a test gave others.
    if (devices_.input != STDIN_FILENO) ::dup2(devices_.input, STDIN_FILENO);
    const int outputDescriptor = ::fileno(devices_.output);
    if (outputDescriptor >= 0 && outputDescriptor != STDOUT_FILENO) {
      ::dup2(outputDescriptor, STDOUT_FILENO);
    }
    if (::setsid() < 0) {
      Log_Level(LOG_LEVEL_ERROR, "unable to create new session: %s\n", std::strerror(errno));
      ::_exit(1);
    }
    CloseInheritedDescriptors();
    // 1: take the terminal even if another session has it.
    ::ioctl(STDIN_FILENO, TIOCSCTTY, 1);
    ::execl(devices_.shell, devices_.shell, static_cast<char*>(nullptr));
    Log_Level(LOG_LEVEL_ERROR, "unable to exec shell: %s\n", std::strerror(errno));
    ::_exit(1);
  }
  int status = 0;
  while (::waitpid(shell, &status, 0) < 0 && errno == EINTR) {
  }
  Write(kEraseLine);
  Flush();
}

void InteractiveConsole::Write(const char* text) { std::fputs(text, devices_.output); }

void InteractiveConsole::Flush() { std::fflush(devices_.output); }

char InteractiveConsole::ReadChoice() {
  for (;;) {
    char typed = 0;
    if (::read(devices_.input, &typed, 1) != 1) continue;
    const char key = static_cast<char>(std::tolower(static_cast<unsigned char>(typed)));
    if (IsChoice(key)) return key;
  }
}

InteractiveConsole& ActivationConsole() {
  static InteractiveConsole standardConsole;
  InteractiveConsole* replacement = ReplacementConsole();
  return replacement != nullptr ? *replacement : standardConsole;
}

void ReplaceActivationConsole(InteractiveConsole* console) { ReplacementConsole() = console; }

}  // namespace orvane
