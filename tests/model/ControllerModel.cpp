#include "tests/model/ControllerModel.h"

#include <cmath>
#include <cstring>

namespace model {

namespace {

constexpr std::uint32_t kUser = 3;
constexpr std::uint32_t kFilters[] = {201, 203, 206};

/** A loader's own percentage: the part that is done, rounded to the nearest, in 8 bits. */
std::uint8_t OwnPercentage(std::uint32_t remaining, std::uint32_t total) {
  if (total == 0) {
    return 100;
  }
  const std::uint32_t done = total - remaining;  // wraps when more remains than there is
  const double percent = std::floor(100.0 * (static_cast<double>(done) / total) + 0.5);
  constexpr double kLargest = 4294967295.0;
  return static_cast<std::uint8_t>(
      static_cast<std::uint64_t>(percent > kLargest ? kLargest : percent) % 256);
}

}  // namespace

ControllerModel::ControllerModel(Surroundings& surroundings, std::string featureId)
    : surroundings_(surroundings), featureId_(std::move(featureId)) {
  std::size_t record = 0;
  for (const auto code : kFilters) {
    surroundings_.Subscribe(record++, kUser, code, 0);
  }
  surroundings_.Post(kUser, 200, featureId_);
}

ControllerModel::~ControllerModel() {
  std::size_t record = 0;
  for (const auto code : kFilters) {
    surroundings_.Unsubscribe(record++, kUser, code, 0);
  }
  for (std::size_t loader = 0; loader < weights_.size(); ++loader) {
    surroundings_.Delete(loader);
  }
  surroundings_.DeleteFactory();
}

void ControllerModel::OnEvent(const Delivery& event) {
  if (event.type != kUser) {
    surroundings_.Log("Unexpected event: " + std::to_string(event.type));
    return;
  }
  switch (event.code) {
    case 201:
      if (Addresses(event)) {
        Prepare();
      }
      break;
    case 203:
      if (Addresses(event)) {
        Install();
      }
      break;
    case 206:
      Abort();
      break;
    default:
      surroundings_.Log("Unexpected user event received: " + std::to_string(event.code));
  }
}

void ControllerModel::Progress(std::uint32_t remaining, std::uint32_t total) {
  if (weights_.empty()) {
    return;
  }
  std::uint32_t totalWeight = 0;
  for (const auto weight : weights_) {
    totalWeight += weight;
  }
  const std::uint32_t share =
      runningWeight_ * OwnPercentage(remaining, total) + completedWeight_ * 100;
  const std::uint32_t overall = totalWeight == 0 ? 0 : share / totalWeight;
  surroundings_.Post(kUser, 205, IdField() + static_cast<char>(overall % 256));
}

void ControllerModel::Completed(std::int32_t successful) {
  if (successful == 0) {
    PostResult(204, 0);
    return;
  }
  const std::size_t next = position_ + 1;
  if (next >= weights_.size()) {
    PostResult(204, 1);
    surroundings_.Log("SWL: Finished upload in MainCPULoader");
    return;
  }
  completedWeight_ += runningWeight_;
  position_ = next;
  started_ = next;
  runningWeight_ = weights_[next];
  surroundings_.Install(next);
}

void ControllerModel::Aborted() {
  PostResult(207, 1);
}

/** An address is as many bytes as the event says; without the bytes it is nobody's. */
bool ControllerModel::Addresses(const Delivery& event) const {
  if (event.withoutBytes && !event.payload.empty()) {
    return false;
  }
  return event.payload == featureId_;
}

bool ControllerModel::BuildList() {
  if (!weights_.empty()) {
    return true;
  }
  const auto updateList = surroundings_.Property("updatelist");
  const auto progressList = updateList.has_value() ? surroundings_.Property("updateprogresslist")
                                                   : std::optional<std::string>();
  if (!progressList.has_value()) {
    surroundings_.Log("Failed to retrieve 'updatelist' property");
    return false;
  }
  for (const auto weight : surroundings_.CreateLoaders(*updateList, *progressList)) {
    weights_.push_back(static_cast<std::uint32_t>(weight));
  }
  completedWeight_ = 0;
  return true;
}

void ControllerModel::Prepare() {
  if (!BuildList()) {
    PostResult(202, 0);
    return;
  }
  std::int32_t ready = 1;
  for (std::size_t loader = 0; loader < weights_.size() && ready != 0; ++loader) {
    ready = surroundings_.Prepare(loader);
  }
  PostResult(202, ready);
}

void ControllerModel::Install() {
  position_ = 0;
  if (weights_.empty()) {
    PostResult(204, 1);
    return;
  }
  started_ = 0;
  runningWeight_ = weights_[0];
  surroundings_.Install(0);
}

void ControllerModel::Abort() {
  if (started_.has_value()) {
    surroundings_.Abort(*started_);
  } else {
    PostResult(207, 1);
  }
}

void ControllerModel::PostResult(std::uint32_t code, std::int32_t result) {
  std::string word(sizeof result, '\0');
  std::memcpy(word.data(), &result, sizeof result);
  surroundings_.Post(kUser, code, IdField() + word);
}

/** 64 bytes: the id as a C string of at most 63 bytes, the rest zero. */
std::string ControllerModel::IdField() const {
  std::string field = featureId_.substr(0, featureId_.find('\0')).substr(0, 63);
  field.resize(64, '\0');
  return field;
}

}  // namespace model
