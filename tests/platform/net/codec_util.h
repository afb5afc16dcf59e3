// Bytes written as hex text, both ways, so that wire tables read like a dump.
#pragma once

#include <string>

namespace nettest {

// "d9 ff" -> the two bytes; spaces are ignored.
inline std::string unhex(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += text[i] == ' ' ? 1 : 2)
    if (text[i] != ' ') out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  return out;
}

inline std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : bytes) {
    if (!s.empty()) s += ' ';
    s += {digits[c >> 4], digits[c & 0x0f]};
  }
  return s;
}

}  // namespace nettest
