#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/model/Subject.h"
#include "tests/model/Surroundings.h"

namespace model {

/**
 * What a controller does, written down as plainly as possible and apart from the real one.
 *
 * It knows two things: the list of loaders, empty until a prepare has built it, and which loader
 * was started last. Everything follows from these, whether or not a run is under way.
 */
class ControllerModel : public Subject {
 public:
  ControllerModel(Surroundings& surroundings, std::string featureId);
  ~ControllerModel() override;

  ControllerModel(const ControllerModel&) = delete;
  ControllerModel& operator=(const ControllerModel&) = delete;

  void OnEvent(const Delivery& event) override;
  void Progress(std::uint32_t remaining, std::uint32_t total) override;
  void Completed(std::int32_t successful) override;
  void Aborted() override;

 private:
  bool Addresses(const Delivery& event) const;
  bool BuildList();
  void Prepare();
  void Install();
  void Abort();
  void PostResult(std::uint32_t code, std::int32_t result);
  std::string IdField() const;

  Surroundings& surroundings_;
  std::string featureId_;
  std::vector<std::uint32_t> weights_;
  std::optional<std::size_t> started_;
  std::size_t position_ = 0;  // of the loader whose completion is the next to come
  std::uint32_t runningWeight_ = 0;
  std::uint32_t completedWeight_ = 0;
};

}  // namespace model
