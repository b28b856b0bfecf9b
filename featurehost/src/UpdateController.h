#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string>

#include "featurehost/src/Broker.h"
#include "featurehost/src/EventLoop.h"
#include "featurehost/src/Outcome.h"
#include "featurehost/src/RunReport.h"
#include "host/EventBroker.h"

namespace featurehost {

/** How far a run is to go. */
enum class Goal { kPrepare, kInstall };

/**
 * Plays the update control of one feature: prepare when it has announced itself, install when it
 * is prepared, until the first result; abort on the stop signal.
 *
 * Made before the feature, so that it hears the announcement. Runs the loop and is driven by it.
 */
class UpdateController : public IEventObserver {
 public:
  UpdateController(EventLoop& loop, Broker& broker, TFeatureId featureId, Goal goal,
                   RunReport& report);
  ~UpdateController() override;

  UpdateController(const UpdateController&) = delete;
  UpdateController& operator=(const UpdateController&) = delete;

  /**
   * Serve the loop until the run has ended.
   * Throws HostError when the feature has not announced itself by the time of the call.
   */
  Outcome Run();

  /** Ask the feature to stop and wait until it has; called again, wait no longer. */
  void Abort();

  void OnEvent(const TEvent& event) override;

 private:
  using Time = std::chrono::steady_clock;

  void Announced(const RunEvent& event);
  void Prepared(const RunEvent& event);
  void Installed(const RunEvent& event);
  void Aborted(const RunEvent& event);
  void Finish(ExitCode code, const std::string& text, const std::optional<RunEvent>& last);

  static bool Decode(const TEvent& event, RunEvent& decoded);
  void Post(TUint32 code);
  std::chrono::milliseconds Elapsed() const;

  EventLoop& loop_;
  Broker& broker_;
  TFeatureId featureId_;
  Goal goal_;
  RunReport& report_;
  Time::time_point start_ = Time::now();
  std::array<TEvent, EUserEventAbortResult - EUserEventFeatureCreated + 1> filters_{};
  bool announced_ = false;
  bool abortPosted_ = false;
  bool abortDelivered_ = false;  // the feature knows; what it answers from here on is its answer
  Outcome outcome_{ExitCode::kAborted, "", std::nullopt, {}};
};

}  // namespace featurehost
