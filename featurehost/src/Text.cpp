#include "featurehost/src/Text.h"

#include <cstdio>
#include <system_error>

namespace featurehost {

std::string OneLine(std::string_view text) {
  constexpr unsigned char kDelete = 0x7f;
  std::string line;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte == '\n') {
      line += "\\n";
    } else if (byte < ' ' || byte == kDelete) {
      char escape[5];
      static_cast<void>(
          std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(byte)));
      line += escape;
    } else {
      line += character;
    }
  }
  return line;
}

std::string ErrorText(int number) {
  return std::generic_category().message(number);
}

std::string Clock(std::chrono::milliseconds duration) {
  constexpr long long kSixty = 60;
  const long long seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();
  const long long minutes = seconds / kSixty;
  char text[40];
  if (minutes >= kSixty) {
    static_cast<void>(std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", minutes / kSixty,
                                    minutes % kSixty, seconds % kSixty));
  } else {
    static_cast<void>(std::snprintf(text, sizeof text, "%lld:%02lld", minutes, seconds % kSixty));
  }
  return text;
}

}  // namespace featurehost
