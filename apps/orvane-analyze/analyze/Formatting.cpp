#include "analyze/Formatting.h"

#include <boost/json/serialize.hpp>
#include <cstdio>
#include <ostream>

namespace orvane::analyze {
namespace {

constexpr std::uint64_t kMillisecond = 1000;
constexpr std::uint64_t kSecond = 1000 * kMillisecond;
constexpr std::uint64_t kMinute = 60 * kSecond;
constexpr std::uint64_t kHour = 60 * kMinute;
constexpr std::uint64_t kDay = 24 * kHour;
constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

/// "whole.fff": @p value in units of @p unit with three decimals.
std::string ThreeDecimals(std::uint64_t value, std::uint64_t unit) {
  const std::uint64_t thousandths = value / (unit / 1000);
  char text[32];
  std::snprintf(text, sizeof text, "%llu.%03llu",
                static_cast<unsigned long long>(thousandths / 1000),
                static_cast<unsigned long long>(thousandths % 1000));
  return text;
}

std::string Magnitude(std::uint64_t microseconds) {
  if (microseconds < kMillisecond) {
    return std::to_string(microseconds) + "\xC2\xB5s";
  }
  if (microseconds < kSecond) {
    return ThreeDecimals(microseconds, kMillisecond) + "ms";
  }
  if (microseconds < kMinute) {
    return ThreeDecimals(microseconds, kSecond) + "s";
  }
  std::string larger;
  if (microseconds >= kDay) {
    larger = std::to_string(microseconds / kDay) + "d ";
  }
  if (microseconds >= kHour) {
    larger += std::to_string(microseconds % kDay / kHour) + "h ";
  }
  return larger + std::to_string(microseconds % kHour / kMinute) + "min " +
         ThreeDecimals(microseconds % kMinute, kSecond) + "s";
}

/// The length of the valid UTF-8 sequence at @p at, or 0 when the byte
/// there does not begin one (overlong forms and surrogates are invalid).
std::size_t ValidSequenceLength(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t offset) {
    return static_cast<unsigned char>(text[at + offset]);
  };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (at + length > text.size() || byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (std::size_t offset = 2; offset < length; ++offset) {
    if ((byte(offset) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

bool IsControl(unsigned char byte) { return byte < 0x20 || byte == 0x7F; }

bool AllPlainAscii(std::string_view text) {
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x80 || IsControl(byte)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string FormatDuration(std::int64_t microseconds) {
  if (microseconds < 0) {
    return "-" + Magnitude(0 - static_cast<std::uint64_t>(microseconds));
  }
  return Magnitude(static_cast<std::uint64_t>(microseconds));
}

std::string FormatChange(std::int64_t microseconds) {
  return (microseconds > 0 ? "+" : "") + FormatDuration(microseconds);
}

std::string TerminalText(std::string_view text) {
  if (AllPlainAscii(text)) {
    return std::string(text);
  }
  std::string safe;
  for (std::size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const std::size_t length = ValidSequenceLength(text, at);
    if (length == 0 || IsControl(byte)) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
      safe += escaped;
      ++at;
      continue;
    }
    safe.append(text.substr(at, length));
    at += length;
  }
  return safe;
}

std::string ValidUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = ValidSequenceLength(text, at);
    if (length == 0) {
      valid += kReplacementCharacter;
      ++at;
      continue;
    }
    valid.append(text.substr(at, length));
    at += length;
  }
  return valid;
}

std::string XmlText(std::string_view text) {
  std::string xml;
  xml.reserve(text.size());
  for (const char character : ValidUtf8(text)) {
    const auto byte = static_cast<unsigned char>(character);
    switch (character) {
      case '&': xml += "&amp;"; break;
      case '<': xml += "&lt;"; break;
      case '>': xml += "&gt;"; break;
      case '"': xml += "&quot;"; break;
      case '\'': xml += "&apos;"; break;
      default:
        // XML 1.0 allows no control character but tab, line feed and
        // carriage return, not even as a reference.
        if (IsControl(byte) && byte != 0x7F && character != '\t' && character != '\n' &&
            character != '\r') {
          xml += kReplacementCharacter;
        } else {
          xml += character;
        }
    }
  }
  return xml;
}

std::size_t DisplayWidth(std::string_view text) {
  std::size_t characters = 0;
  for (const char character : text) {
    if ((static_cast<unsigned char>(character) & 0xC0) != 0x80) {
      ++characters;
    }
  }
  return characters;
}

std::string FitWidth(std::string_view text, std::size_t width) {
  if (DisplayWidth(text) <= width) {
    return std::string(text);
  }
  if (width == 0) {
    return {};
  }
  // Keep width - 1 characters, then the ellipsis.
  std::size_t kept = 0;
  std::size_t end = 0;
  for (; end < text.size(); ++end) {
    if ((static_cast<unsigned char>(text[end]) & 0xC0) != 0x80) {
      if (kept == width - 1) {
        break;
      }
      ++kept;
    }
  }
  return std::string(text.substr(0, end)) + std::string(kEllipsis);
}

std::string PadRight(std::string_view text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  return std::string(text) + std::string(used < width ? width - used : 0, ' ');
}

std::string PadLeft(std::string_view text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  return std::string(used < width ? width - used : 0, ' ') + std::string(text);
}

void WriteJson(const boost::json::value& value, std::ostream& out) {
  out << boost::json::serialize(value) << '\n';
}

}  // namespace orvane::analyze
