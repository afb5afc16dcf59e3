// Base64: the standard alphabet (RFC 4648, with '=' padding) used to type and
// print binary values on the command line as {"$binary": "<base64>"}.
// Stateless; every function may be called from any thread.
#pragma once

#include <string>
#include <vector>

namespace rxcli {

class Base64 {
 public:
  // Padded text of the bytes.
  [[nodiscard]] static std::string encode(const std::vector<unsigned char>& bytes);
  // The bytes of the text. Padding may be left out; anything else outside the
  // alphabet (spaces included), a lone trailing character or data after the
  // padding throws std::invalid_argument saying what is wrong and where.
  [[nodiscard]] static std::vector<unsigned char> decode(const std::string& text);
};

}  // namespace rxcli
