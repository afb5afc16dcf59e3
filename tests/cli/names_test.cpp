// The names a user types: globs of list and watch, and the nearest names
// offered for a mistyped command, option or method.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "glob.h"
#include "suggest.h"

namespace {

using rxcli::Glob;

TEST(Glob, MatchesWholeNamesWithStarsAndQuestionMarks) {
  // pattern, name, matches
  const std::vector<std::tuple<std::string, std::string, bool>> cases = {
      {"Robot/*", "Robot/Battery", true},
      {"Robot/*", "Robot/Arm/Left", true},  // * crosses slashes
      {"Robot/*", "Robot/", true},
      {"Robot/*", "MyRobot/Battery", false},
      {"*/Battery", "Robot/Battery", true},
      {"*/Battery", "Robot/Battery/Low", false},
      {"R?bot", "Robot", true},
      {"R?bot", "Rbot", false},
      {"a*b*c", "axxbyyc", true},
      {"a*b*c", "axxbyy", false},
      {"*a*a*a*a*b", std::string(200, 'a'), false},  // no exponential backtracking
      {"Robot", "robot", false},
      {"*", "", true},
  };
  for (const auto& [pattern, name, matches] : cases)
    EXPECT_EQ(matches, Glob(pattern).matches(name)) << pattern << " " << name;
  EXPECT_TRUE(Glob::hasWildcards("a?"));
  EXPECT_FALSE(Glob::hasWildcards("Robot/Battery"));
  EXPECT_EQ("/Battery", Glob("Ro*/Battery?").longestLiteral());
  EXPECT_EQ("", Glob("*").longestLiteral());
}

TEST(Suggest, OffersTheNearestNamesFirst) {
  const std::vector<std::string> names = {"get",  "getData", "getDataList", "insert",
                                          "list", "events",  "raise"};
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"lsit", "did you mean list?"},                       // swapped neighbours
      {"GETDATA", "did you mean getData or getDataList?"},  // case ignored; a prefix counts as typed
      {"insrt", "did you mean insert?"},
      {"event", "did you mean events?"},
      {"zzzzzz", ""},
      {std::string(10000, 'x'), ""},  // a pasted paragraph costs nothing
  };
  for (const auto& [typed, said] : cases)
    EXPECT_EQ(said, rxcli::didYouMean(rxcli::nearestNames(typed, names))) << typed.substr(0, 10);
}

}  // namespace
