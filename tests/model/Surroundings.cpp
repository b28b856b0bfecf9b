#include "tests/model/Surroundings.h"

#include <algorithm>

namespace model {

namespace {

/** Every byte: printable ones as they are, others in braces, with how often they follow each other.
 */
std::string Readable(const std::string& bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    const char byte = bytes[at];
    const auto end = std::min(bytes.find_first_not_of(byte, at), bytes.size());
    if (byte >= ' ' && byte <= '~' && byte != '{') {
      text += std::string(end - at, byte);
    } else {
      text += "{" + std::to_string(static_cast<unsigned char>(byte)) + " x" +
              std::to_string(end - at) + "}";
    }
    at = end;
  }
  return text;
}

std::string Filter(std::size_t record, std::uint32_t type, std::uint32_t code, std::uint32_t size) {
  return "#" + std::to_string(record) + " " + std::to_string(type) + "/" + std::to_string(code) +
         " size " + std::to_string(size);
}

}  // namespace

void Surroundings::Play(Subject& subject) {
  subject_ = &subject;
  for (const auto& action : scenario_.actions) {
    Perform(action);
  }
}

const std::vector<std::string>& Surroundings::Notes() {
  TakeLog();
  return notes_;
}

std::optional<std::string> Surroundings::Property(const std::string& key) {
  Note("look up " + key);
  if (key == "updatelist" && hasUpdateList_) {
    return "a;b";
  }
  if (key == "updateprogresslist" && hasProgressList_) {
    return "1;2";
  }
  return std::nullopt;
}

std::vector<std::int32_t> Surroundings::CreateLoaders(const std::string& updateList,
                                                      const std::string& progressList) {
  Note("create from " + updateList + " and " + progressList);
  if (nextCreation_ == scenario_.factory.size()) {
    return {};
  }
  const auto& weights = scenario_.factory[nextCreation_++];
  hasLoaders_ = hasLoaders_ || !weights.empty();
  return weights;
}

std::int32_t Surroundings::Prepare(std::size_t loader) {
  Note("prepare " + std::to_string(loader));
  return React();
}

void Surroundings::Install(std::size_t loader) {
  Note("install " + std::to_string(loader));
  React();
}

void Surroundings::Abort(std::size_t loader) {
  Note("abort " + std::to_string(loader));
  React();
}

void Surroundings::Delete(std::size_t loader) {
  Note("delete " + std::to_string(loader));
}

void Surroundings::DeleteFactory() {
  Note("delete factory");
}

void Surroundings::Subscribe(std::size_t record, std::uint32_t type, std::uint32_t code,
                             std::uint32_t size) {
  Note("subscribe " + Filter(record, type, code, size));
}

void Surroundings::Unsubscribe(std::size_t record, std::uint32_t type, std::uint32_t code,
                               std::uint32_t size) {
  Note("unsubscribe " + Filter(record, type, code, size));
}

void Surroundings::Post(std::uint32_t type, std::uint32_t code, const std::string& payload) {
  Note("post " + std::to_string(type) + "/" + std::to_string(code) + " " + Readable(payload));
  // Creation posts too, before anybody can answer.
  if (scenario_.deliversAtOnce && subject_ != nullptr) {
    React();
  }
}

void Surroundings::Log(const std::string& line) {
  notes_.push_back("log " + line);
}

void Surroundings::Note(const std::string& note) {
  TakeLog();
  notes_.push_back(note);
}

void Surroundings::TakeLog() {
  if (!takeLog) {
    return;
  }
  for (const auto& line : takeLog()) {
    Log(line);
  }
}

std::int32_t Surroundings::React() {
  if (nextReaction_ == scenario_.reactions.size()) {
    return 1;
  }
  const Reaction& reaction = scenario_.reactions[nextReaction_++];
  for (const auto& action : reaction.actions) {
    Perform(action);
  }
  return reaction.ready;
}

void Surroundings::Perform(const Action& action) {
  switch (action.kind) {
    case Action::Kind::kEvent:
      subject_->OnEvent(EventOf(action));
      return;
    case Action::Kind::kUpdateList:
      hasUpdateList_ = action.first != 0;
      return;
    case Action::Kind::kProgressList:
      hasProgressList_ = action.first != 0;
      return;
    default:
      break;
  }
  if (!hasLoaders_) {
    return;  // nobody is there who could report anything
  }
  if (action.kind == Action::Kind::kProgress) {
    subject_->Progress(action.first, action.second);
  } else if (action.kind == Action::Kind::kCompleted) {
    subject_->Completed(static_cast<std::int32_t>(action.first));
  } else {
    subject_->Aborted();
  }
}

Delivery Surroundings::EventOf(const Action& action) const {
  Delivery event{action.first, action.second, scenario_.featureId, false};
  switch (action.address) {
    case Address::kOwn:
      break;
    case Address::kTerminated:
      event.payload += '\0';
      break;
    case Address::kShorter:
      event.payload = event.payload.substr(0, event.payload.empty() ? 0 : event.payload.size() - 1);
      break;
    case Address::kOtherLastByte:
      if (!event.payload.empty()) {
        event.payload.back() = static_cast<char>(event.payload.back() ^ 1);
      }
      break;
    case Address::kNobody:
      event.payload.clear();
      break;
    case Address::kOwnSizeNoBytes:
      event.withoutBytes = true;
      break;
  }
  return event;
}

}  // namespace model
