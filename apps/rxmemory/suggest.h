// nearestNames: the "did you mean ...?" of the command line. Picks, among the
// names a word could have meant (commands, options, published methods), those
// a few typing mistakes away: the edit distance counts insertions, deletions,
// substitutions and swaps of two neighbours, ignoring case.
// Stateless; may be called from any thread.
#pragma once

#include <string>
#include <vector>

namespace rxcli {

// At most `limit` candidates, nearest first (then in alphabetical order),
// within max(2, word.size() / 3) edits of `word`, or starting with it.
[[nodiscard]] std::vector<std::string> nearestNames(const std::string& word,
                                                    const std::vector<std::string>& candidates,
                                                    std::size_t limit = 3);

// "did you mean A, B or C?", or an empty string when there is none.
[[nodiscard]] std::string didYouMean(const std::vector<std::string>& names);

}  // namespace rxcli
