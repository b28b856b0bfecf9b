#pragma once

#include "tests/support/FakeBroker.h"
#include "tests/support/Ticks.h"

namespace support {

/** The descriptor that is subscribed to, of at most one; -1 when there is none. */
inline int SubscribedDescriptor(const FakeBroker& broker) {
  for (const auto& entry : broker.Subscriptions()) {
    if (entry.filter.iType == EEventDescriptor) {
      return static_cast<int>(entry.filter.iCode);
    }
  }
  return -1;
}

/** Deliver what a host would deliver now, if there is anything; waits a moment for it. */
inline void DeliverDue(FakeBroker& broker, Ticks& ticks) {
  const int descriptor = SubscribedDescriptor(broker);
  const Due due = ticks.Await(descriptor);
  if (due == Due::KTick) {
    broker.Tick();
  } else if (due == Due::KOutput) {
    broker.DescriptorReady(descriptor);
  }
}

}  // namespace support
