/// The terminal under the operator's console: colours and cursor by escape
/// sequences, single keys read without echo, and the switch between the
/// console's virtual terminals.
#pragma once

#include <termios.h>

#include <cstdio>

namespace orvane::terminal {

/// ANSI colour numbers; kReset is written as its own sequence.
enum class Colour : int {
  kRed = 1,
  kGreen = 2,
  kYellow = 3,
  kMagenta = 5,
  kCyan = 6,
  kWhite = 7,
  kReset = 8,
};

inline constexpr const char* kHideCursor = "\x1b[?25l";
inline constexpr const char* kShowCursor = "\x1b[?25h";
inline constexpr const char* kEraseLine = "\x1b[2K";

/// Writes the sequence that selects @p colour for the text that follows.
void WriteColour(std::FILE* output, Colour colour);

/// Turns canonical input and echo off on @p input and returns the
/// attributes it set; a failure to read or set them is logged, and the
/// keys are read all the same.
termios EnterSingleKeyMode(int input);

/// Turns canonical input and echo on again in @p attributes (from
/// EnterSingleKeyMode) and applies them; a failure is logged.
void LeaveSingleKeyMode(int input, termios attributes);

/// The next key typed on @p input, folded to lower case. A failed read or
/// the end of input is not an answer: the read simply repeats.
char ReadLowerCaseKey(int input);

/// Brings virtual terminal @p terminal of @p console to the front; does
/// nothing when the console cannot be opened.
void ActivateVirtualTerminal(const char* console, int terminal);

}  // namespace orvane::terminal
