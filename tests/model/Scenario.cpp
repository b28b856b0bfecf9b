#include "tests/model/Scenario.h"

#include <sstream>

namespace model {

namespace {

const char* Name(Address address) {
  switch (address) {
    case Address::kOwn:
      return "own id";
    case Address::kTerminated:
      return "own id and a NUL";
    case Address::kShorter:
      return "own id without its last byte";
    case Address::kOtherLastByte:
      return "own id with another last byte";
    case Address::kNobody:
      return "no bytes";
    case Address::kOwnSizeNoBytes:
      return "own length and a null pointer";
  }
  return "?";
}

std::string Text(const Action& action) {
  std::ostringstream text;
  switch (action.kind) {
    case Action::Kind::kEvent:
      text << "event " << action.first << "/" << action.second << ", " << Name(action.address);
      break;
    case Action::Kind::kProgress:
      text << "Progress(" << action.first << ", " << action.second << ")";
      break;
    case Action::Kind::kCompleted:
      text << "Completed(" << static_cast<std::int32_t>(action.first) << ")";
      break;
    case Action::Kind::kAborted:
      text << "Aborted()";
      break;
    case Action::Kind::kUpdateList:
      text << "updatelist " << (action.first != 0 ? "there" : "gone");
      break;
    case Action::Kind::kProgressList:
      text << "updateprogresslist " << (action.first != 0 ? "there" : "gone");
      break;
  }
  return text.str();
}

std::string Quoted(const std::string& bytes) {
  static const char* const digits = "0123456789abcdef";
  std::string text = "\"";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < ' ' || value > '~') {
      text += std::string("\\x") + digits[value / 16] + digits[value % 16];
    } else {
      text += byte;
    }
  }
  return text + "\"";
}

}  // namespace

std::string Describe(const Scenario& scenario) {
  std::ostringstream text;
  text << "feature " << Quoted(scenario.featureId)
       << (scenario.deliversAtOnce ? ", the broker delivers at once\n" : "\n");
  for (const auto& weights : scenario.factory) {
    text << "factory makes loaders of weights:";
    for (const auto weight : weights) {
      text << " " << weight;
    }
    text << "\n";
  }
  for (const auto& reaction : scenario.reactions) {
    text << "reaction: ready " << reaction.ready;
    for (const auto& action : reaction.actions) {
      text << "; " << Text(action);
    }
    text << "\n";
  }
  for (const auto& action : scenario.actions) {
    text << "- " << Text(action) << "\n";
  }
  return text.str();
}

}  // namespace model
