#include "tests/faults/Expectation.h"

#include <map>
#include <sstream>
#include <stdexcept>

namespace faults {

namespace {

std::string WordFor(const Row& row, Kind kind, Moment moment) {
  std::istringstream words(row.rules.at(static_cast<std::size_t>(kind)));
  std::string word;
  for (std::size_t index = 0; index <= static_cast<std::size_t>(moment); ++index) {
    if (!(words >> word)) {
      throw std::logic_error(std::string("too few words for: ") + row.name);
    }
  }
  return word;
}

/** Cut off what follows the mark. */
std::string TakeBehind(std::string& word, char mark) {
  const auto place = word.find(mark);
  if (place == std::string::npos) {
    return "";
  }
  const std::string behind = word.substr(place + 1);
  word.erase(place);
  return behind;
}

const std::map<std::string, std::vector<std::string>> kResults = {
    {"S", {"204 1"}}, {"s", {"204 1"}},           {"F", {"204 0"}}, {"B", {"204 0", "204 1"}},
    {"A", {"207 1"}}, {"SA", {"204 1", "207 1"}}, {"G", {"207 1"}},
};

}  // namespace

Expectation Expectation::Of(const Row& row, Kind kind, Moment moment) {
  std::string word = WordFor(row, kind, moment);
  Expectation expected;
  if (word[0] == '-') {
    expected.run = false;
    expected.reason = word.at(1);
    return expected;
  }
  const std::string descriptors = TakeBehind(word, '+');
  expected.descriptorsLeft = descriptors.empty() ? 0 : std::stoul(descriptors);
  expected.left = TakeBehind(word, '/');
  expected.results = kResults.at(word);
  expected.maySucceedToo = word == "G";
  if (word[0] == 'S' || word[0] == 's') {
    expected.targetIsRight = word[0] == 'S';
  }
  return expected;
}

}  // namespace faults
