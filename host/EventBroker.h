#pragma once

#include "host/Event.h"

/** Receives events. Implemented by the module, called by the host's broker. */
class IEventObserver {
 public:
  virtual ~IEventObserver() = default;

  /**
   * One event that matches a subscription of this observer.
   *
   * Called on the host's event thread only, never while another OnEvent of the same module is
   * on the stack of another thread. The record and its payload belong to the broker and are valid
   * until the call returns. During the call the observer may post, subscribe, unsubscribe any
   * subscription (also the one being delivered), and be destroyed.
   */
  virtual void OnEvent(const TEvent& event) = 0;
};

/**
 * The host's event exchange.
 *
 * Every operation is called on the event thread or, before the host's loop runs, on the thread
 * that calls FeatureCreate2. None of them reports failure: a broker that cannot serve a
 * subscription says so in its own log, and its events then never come.
 */
class IEventBroker {
 public:
  virtual ~IEventBroker() = default;

  /**
   * From now on deliver every event whose iType and iCode equal the filter's to the observer.
   *
   * Neither record is handed over: the subscriber keeps the filter alive and unchanged until it
   * unsubscribes, and the broker may keep a reference to it. Timer and descriptor filters also
   * tell what to watch (see TEventType). Legal during delivery; an event that is already being
   * delivered need not reach the new observer.
   */
  virtual void Subscribe(const TEvent& filter, IEventObserver* observer) = 0;

  /**
   * Undo a subscription, named by the very record that it was made with.
   *
   * Legal during delivery; once it returns the observer is not called for this filter again, not
   * even with events that are queued. A subscription that was never made, or is already
   * undone, is passed over in silence: the module's loaders unsubscribe more often than they
   * subscribe.
   */
  virtual void Unsubscribe(const TEvent& filter, IEventObserver* observer) = 0;

  /**
   * Hand an event to every subscriber, at once or from a queue, in the order of posting.
   *
   * The record and its payload are locals of the caller: the broker copies iSize bytes from
   * iData before it returns. Legal during delivery, and from inside the calls that an event
   * sets off.
   */
  virtual void PostEvent(const TEvent& event) = 0;
};
