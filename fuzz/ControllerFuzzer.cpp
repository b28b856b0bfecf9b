// Event sequences against the controller with loaders that do anything at any time. Its model says
// what it must answer.

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz/support/Require.h"
#include "tests/model/Comparison.h"

namespace {

using model::Action;
using model::Address;
using model::Reaction;
using model::Scenario;

constexpr std::size_t kMostActions = 200;

std::uint32_t Word(FuzzedDataProvider& input) {
  const std::uint32_t edges[] = {0, 1, 2, 100, 101, 1000, 0x7fffffff, 0x80000000, 0xffffffff};
  return input.ConsumeBool() ? input.PickValueInArray(edges) : input.ConsumeIntegral<uint32_t>();
}

Action AnyAction(FuzzedDataProvider& input) {
  Action action;
  switch (input.ConsumeIntegralInRange<int>(0, 9)) {
    case 0:
      action = {Action::Kind::kEvent, 3, 201, Address::kOwn};
      break;
    case 1:
      action = {Action::Kind::kEvent, 3, 203, Address::kOwn};
      break;
    case 2:
      action = {Action::Kind::kEvent, 3, 206, Address::kOwn};
      break;
    case 3:
      action.kind = Action::Kind::kEvent;
      action.first = input.ConsumeIntegralInRange<std::uint32_t>(0, 4);
      action.second = input.ConsumeIntegralInRange<std::uint32_t>(199, 208);
      action.address = static_cast<Address>(input.ConsumeIntegralInRange<int>(0, 5));
      break;
    case 4:
      action = {Action::Kind::kProgress, Word(input), Word(input), Address::kOwn};
      break;
    case 5:
      action = {Action::Kind::kCompleted, Word(input), 0, Address::kOwn};
      break;
    case 6:
      action.kind = Action::Kind::kAborted;
      break;
    case 7:
      action = {Action::Kind::kUpdateList, input.ConsumeBool(), 0, Address::kOwn};
      break;
    case 8:
      action = {Action::Kind::kProgressList, input.ConsumeBool(), 0, Address::kOwn};
      break;
    default:
      action = {Action::Kind::kCompleted, 1, 0, Address::kOwn};
  }
  return action;
}

Scenario AnyScenario(FuzzedDataProvider& input) {
  Scenario scenario;
  scenario.featureId = input.ConsumeRandomLengthString(80);
  scenario.deliversAtOnce = input.ConsumeBool();
  for (int lists = input.ConsumeIntegralInRange<int>(0, 3); lists > 0; --lists) {
    scenario.factory.emplace_back();
    for (int loaders = input.ConsumeIntegralInRange<int>(0, 5); loaders > 0; --loaders) {
      scenario.factory.back().push_back(static_cast<std::int32_t>(Word(input)));
    }
  }
  while (input.remaining_bytes() > 0 && scenario.actions.size() < kMostActions) {
    if (input.ConsumeIntegralInRange<int>(0, 2) != 0) {
      scenario.actions.push_back(AnyAction(input));
      continue;
    }
    Reaction reaction;
    reaction.ready = input.ConsumeIntegralInRange<std::int32_t>(-1, 2);
    for (int actions = input.ConsumeIntegralInRange<int>(0, 3); actions > 0; --actions) {
      reaction.actions.push_back(AnyAction(input));
    }
    scenario.reactions.push_back(reaction);
  }
  return scenario;
}

/** Without the log: the fuzzers' host keeps none. */
std::vector<std::string> Without(std::vector<std::string> notes) {
  const auto isLog = [](const std::string& note) { return note.rfind("log ", 0) == 0; };
  notes.erase(std::remove_if(notes.begin(), notes.end(), isLog), notes.end());
  return notes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const Scenario scenario = AnyScenario(input);
  const auto difference =
      model::Difference(Without(model::NotesOf<model::ControllerModel>(scenario)),
                        model::NotesOf<model::RealController>(scenario));
  fuzz::Require(difference.empty(), "\n" + model::Describe(scenario) + difference);
  return 0;
}
