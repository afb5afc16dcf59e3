#include "glob.h"

#include <utility>

namespace rxcli {

Glob::Glob(std::string pattern) : pattern_(std::move(pattern)) {}

bool Glob::hasWildcards(const std::string& text) { return text.find_first_of("*?") != std::string::npos; }

bool Glob::matches(const std::string& name) const {
  // Greedy with one backtrack point, the last `*`: linear in practice and
  // never exponential, whatever the pattern a user types.
  std::size_t p = 0, n = 0;
  std::size_t starP = std::string::npos, starN = 0;
  while (n < name.size()) {
    if (p < pattern_.size() && (pattern_[p] == '?' || pattern_[p] == name[n])) {
      ++p;
      ++n;
    } else if (p < pattern_.size() && pattern_[p] == '*') {
      starP = p++;
      starN = n;
    } else if (starP != std::string::npos) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < pattern_.size() && pattern_[p] == '*') ++p;
  return p == pattern_.size();
}

std::string Glob::longestLiteral() const {
  std::string best, run;
  for (const char c : pattern_ + '*') {
    if (c == '*' || c == '?') {
      if (run.size() > best.size()) best = run;
      run.clear();
    } else {
      run += c;
    }
  }
  return best;
}

}  // namespace rxcli
