#pragma once

#include <string>
#include <vector>

#include "tests/model/ControllerModel.h"
#include "tests/model/RealController.h"
#include "tests/model/Surroundings.h"

namespace model {

/** Everything that a controller of this kind does in a scenario, its end included. */
template <typename TSubject>
std::vector<std::string> NotesOf(
    const Scenario& scenario, const std::function<std::vector<std::string>()>& takeLog = nullptr) {
  Surroundings surroundings(scenario);
  surroundings.takeLog = takeLog;
  {
    TSubject subject(surroundings, scenario.featureId);
    surroundings.Play(subject);
  }
  return surroundings.Notes();
}

/** Empty when the notes agree; otherwise where they part, with what came before. */
inline std::string Difference(const std::vector<std::string>& expected,
                              const std::vector<std::string>& actual) {
  if (expected == actual) {
    return "";
  }
  std::string text;
  std::size_t index = 0;
  for (; index < expected.size() && index < actual.size() && expected[index] == actual[index];
       ++index) {
    text += "          " + expected[index] + "\n";
  }
  text += "expected: " + (index < expected.size() ? expected[index] : "nothing more") + "\n";
  text += "actual:   " + (index < actual.size() ? actual[index] : "nothing more") + "\n";
  return text;
}

}  // namespace model
