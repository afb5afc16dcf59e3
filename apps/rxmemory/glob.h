// Glob: a name pattern of `list` and `watch`. `*` stands for any run of
// characters (slashes included: `Robot/*` matches `Robot/Arm/Left`), `?` for
// any one character; everything else stands for itself, case-sensitively.
// There is no escape: key names with `*` or `?` are matched by those
// characters like any other.
// Immutable; safe to share between threads.
#pragma once

#include <string>

namespace rxcli {

class Glob {
 public:
  explicit Glob(std::string pattern);

  // True when the text holds `*` or `?`: it is a pattern, not a name.
  [[nodiscard]] static bool hasWildcards(const std::string& text);

  [[nodiscard]] bool matches(const std::string& name) const;
  // The longest run of plain characters: every match contains it, so a
  // substring filter with it (getDataList) narrows the candidates first.
  [[nodiscard]] std::string longestLiteral() const;
  const std::string& pattern() const { return pattern_; }

 private:
  std::string pattern_;
};

}  // namespace rxcli
