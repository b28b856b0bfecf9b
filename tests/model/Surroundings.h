#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/model/Scenario.h"
#include "tests/model/Subject.h"

namespace model {

/**
 * Everything around a controller: plays a scenario, and writes down every call that the controller
 * makes. Two controllers that behave the same leave the same notes.
 */
class Surroundings {
 public:
  explicit Surroundings(const Scenario& scenario) : scenario_(scenario) {}

  /** Deliver the scenario's actions, one after the other. */
  void Play(Subject& subject);

  const std::vector<std::string>& Notes();

  /** Answers the log lines since the last call; asked before every note. */
  std::function<std::vector<std::string>()> takeLog;

  // What a controller calls.
  std::optional<std::string> Property(const std::string& key);
  /** @return the weights of the new loaders. */
  std::vector<std::int32_t> CreateLoaders(const std::string& updateList,
                                          const std::string& progressList);
  std::int32_t Prepare(std::size_t loader);
  void Install(std::size_t loader);
  void Abort(std::size_t loader);
  void Delete(std::size_t loader);
  void DeleteFactory();
  /** @param record  0, 1, 2: which of the records that were subscribed with. */
  void Subscribe(std::size_t record, std::uint32_t type, std::uint32_t code, std::uint32_t size);
  void Unsubscribe(std::size_t record, std::uint32_t type, std::uint32_t code, std::uint32_t size);
  void Post(std::uint32_t type, std::uint32_t code, const std::string& payload);
  void Log(const std::string& line);

 private:
  void Note(const std::string& note);
  void TakeLog();
  std::int32_t React();
  void Perform(const Action& action);
  Delivery EventOf(const Action& action) const;

  const Scenario& scenario_;
  Subject* subject_ = nullptr;
  std::size_t nextReaction_ = 0;
  std::size_t nextCreation_ = 0;
  bool hasUpdateList_ = true;
  bool hasProgressList_ = true;
  bool hasLoaders_ = false;
  std::vector<std::string> notes_;
};

}  // namespace model
