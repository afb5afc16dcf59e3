#include "base64.h"

#include <stdexcept>

namespace rxcli {

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The 6-bit value of a character, or -1 when it is not in the alphabet.
int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

std::string Base64::encode(const std::vector<unsigned char>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const unsigned int n = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 1) {
    const unsigned int n = bytes[i] << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += "==";
  } else if (rest == 2) {
    const unsigned int n = (bytes[i] << 16) | (bytes[i + 1] << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += '=';
  }
  return out;
}

std::vector<unsigned char> Base64::decode(const std::string& text) {
  std::size_t end = text.size();
  std::size_t padding = 0;
  while (end > 0 && text[end - 1] == '=' && padding < 2) {
    --end;
    ++padding;
  }
  for (std::size_t i = 0; i < end; ++i) {
    if (sextet(text[i]) >= 0) continue;
    const std::string what = text[i] == '=' ? "'=' before the end" : "character '" + std::string(1, text[i]) + "'";
    throw std::invalid_argument("bad base64: " + what + " at position " + std::to_string(i));
  }
  // With padding the text comes in whole groups of four.
  if (padding > 0 && text.size() % 4 != 0)
    throw std::invalid_argument("bad base64: padded text must have a length that is a multiple of 4");
  if (end % 4 == 1) throw std::invalid_argument("bad base64: a lone character at the end");

  std::vector<unsigned char> out;
  out.reserve(end / 4 * 3 + 2);
  unsigned int bits = 0;
  int held = 0;
  for (std::size_t i = 0; i < end; ++i) {
    bits = (bits << 6) | static_cast<unsigned int>(sextet(text[i]));
    held += 6;
    if (held >= 8) {
      held -= 8;
      out.push_back(static_cast<unsigned char>((bits >> held) & 0xFF));
    }
  }
  return out;
}

}  // namespace rxcli
