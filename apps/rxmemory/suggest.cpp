#include "suggest.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <utility>

namespace rxcli {

namespace {

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Damerau-Levenshtein in its restricted form (each substring edited once),
// which is what typing mistakes need.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace

std::vector<std::string> nearestNames(const std::string& word, const std::vector<std::string>& candidates,
                                      std::size_t limit) {
  // Words and names are short (a command line, a method name): the quadratic
  // table costs nothing next to a round trip to the broker. Longer input is
  // cut so that a pasted paragraph cannot make it cost something.
  const std::string typed = lower(word.substr(0, 64));
  const std::size_t allowed = std::max<std::size_t>(2, typed.size() / 3);
  std::set<std::pair<std::size_t, std::string>> ranked;
  for (const std::string& name : candidates) {
    const std::string candidate = lower(name.substr(0, 64));
    std::size_t d = distance(typed, candidate);
    // A prefix typed is meant as such (`getDataL` for getDataList).
    if (!typed.empty() && candidate.compare(0, typed.size(), typed) == 0) d = std::min<std::size_t>(d, 1);
    if (d <= allowed && name != word) ranked.emplace(d, name);  // case alone counts nothing
  }
  std::vector<std::string> out;
  for (const auto& entry : ranked) {
    if (out.size() == limit) break;
    if (std::find(out.begin(), out.end(), entry.second) == out.end()) out.push_back(entry.second);
  }
  return out;
}

std::string didYouMean(const std::vector<std::string>& names) {
  if (names.empty()) return std::string();
  std::string text = "did you mean " + names.front();
  for (std::size_t i = 1; i < names.size(); ++i) text += (i + 1 == names.size() ? " or " : ", ") + names[i];
  return text + "?";
}

}  // namespace rxcli
