#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "featurehost/src/Broker.h"
#include "featurehost/src/EventLoop.h"
#include "featurehost/src/Module.h"
#include "host/EventBroker.h"
#include "tests/support/FakeProperties.h"

namespace lifecycle {

/**
 * The shipped module in a real event loop, driven by nothing but events. The test says what to do
 * upon which event; every event that the module posts is kept as a text, such as "202 1" or
 * "205 33".
 */
class LiveHost : public IEventObserver {
 public:
  explicit LiveHost(const support::FakeProperties& properties);
  ~LiveHost() override;

  LiveHost(const LiveHost&) = delete;
  LiveHost& operator=(const LiveHost&) = delete;

  /** Post an event to the feature, as the update control does. */
  void Post(TUint32 code);
  /** Do something the first time that an event's text begins so, from inside its delivery. */
  void On(const std::string& event, std::function<void()> action);
  /** Prepare and, when that has succeeded, install. */
  void StartInstall();

  /**
   * Serve until so many events whose text begins so have come, and for a while longer to see what
   * else comes. To be called once. Events that do not come within a minute fail the test.
   */
  void ServeUntil(const std::string& event, std::size_t count = 1);
  /** The same for anything that is to hold in the end. */
  void ServeUntil(const std::function<bool()>& holds, const std::string& what);

  const std::vector<std::string>& Events() const { return events_; }
  /** The events without the progress between them. */
  std::vector<std::string> Results() const;
  /** The same with runs of equal results as one: a failed check repeats its result. */
  std::vector<std::string> ResultsOnce() const;
  /** The percentages of the progress events, in order. */
  std::vector<unsigned> Percentages() const;
  std::size_t Count(const std::string& event) const;

  /** End the feature in the next turn of the loop, outside of any delivery, as a host does. */
  void DestroySoon() { destroySoon_ = true; }

  void OnEvent(const TEvent& event) override;

 private:
  struct Reaction {
    std::string event;
    std::function<void()> action;
  };
  class NoInterfaces : public IInterfaceBroker {};

  featurehost::EventLoop loop_;
  featurehost::Broker broker_{loop_};
  featurehost::Module module_;
  NoInterfaces interfaces_;
  std::vector<TEvent> filters_;
  std::vector<Reaction> reactions_;
  std::vector<std::string> events_;
  bool destroySoon_ = false;
  std::unique_ptr<IFeatureModule2> feature_;
};

}  // namespace lifecycle
