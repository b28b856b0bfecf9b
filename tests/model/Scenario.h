#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace model {

/** Whom an event's payload addresses. */
enum class Address {
  kOwn,             ///< the feature's id
  kTerminated,      ///< the id and a NUL that is counted
  kShorter,         ///< the id without its last byte
  kOtherLastByte,   ///< as long as the id, but another
  kNobody,          ///< no bytes
  kOwnSizeNoBytes,  ///< the id's length and a null pointer
};

/** One thing that happens to a controller. */
struct Action {
  enum class Kind {
    kEvent,         ///< an event of type first and code second arrives
    kProgress,      ///< a loader reports first remaining of second
    kCompleted,     ///< a loader reports its end with the word first
    kAborted,       ///< a loader reports that it has stopped
    kUpdateList,    ///< the property "updatelist" is there from now on, if first is not 0
    kProgressList,  ///< the same for "updateprogresslist"
  };

  Kind kind = Kind::kEvent;
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  Address address = Address::kOwn;
};

/** What happens inside one call that the controller makes, before that call returns. */
struct Reaction {
  std::int32_t ready = 1;  ///< what Prepare answers
  std::vector<Action> actions;
};

/** A life of a controller, from creation to destruction. */
struct Scenario {
  std::string featureId = "feature";
  /** The weights of the loaders that the first, second ... call of the factory makes. */
  std::vector<std::vector<std::int32_t>> factory;
  /** Taken by one call after the other, of whichever loader; afterwards nothing happens in them. */
  std::vector<Reaction> reactions;
  /** Whether posts take reactions too, as with a broker that delivers at once. */
  bool deliversAtOnce = false;
  /** One after the other, each when the one before is over. */
  std::vector<Action> actions;
};

/** The scenario as text, a line for each action, for the report of a failure. */
std::string Describe(const Scenario& scenario);

}  // namespace model
