#pragma once

#include <cstdint>
#include <string>

namespace model {

/** An event on its way to a controller. */
struct Delivery {
  std::uint32_t type;
  std::uint32_t code;
  std::string payload;
  bool withoutBytes;  ///< the pointer is null, though the size is the payload's
};

/** A controller as its surroundings see it: the model, or the real one. */
class Subject {
 public:
  virtual ~Subject() = default;

  virtual void OnEvent(const Delivery& event) = 0;
  virtual void Progress(std::uint32_t remaining, std::uint32_t total) = 0;
  virtual void Completed(std::int32_t successful) = 0;
  virtual void Aborted() = 0;
};

}  // namespace model
