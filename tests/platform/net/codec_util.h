// Bytes written as hex text, both ways, so that wire tables read like a dump;
// and the text of an exception, so that one check of an error is one line.
#pragma once

#include <exception>
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

// The text of the exception f throws, or "(no error)".
template <typename F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no error)";
}

}  // namespace nettest
