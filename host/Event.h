#pragma once

#include <cstddef>

#include "host/Types.h"

/** Values of TEvent::iType. */
enum TEventType : TUint32 {
  /**
   * A timer tick. As a filter: iCode is 0, iSize is the period in milliseconds (at least 1),
   * iData is non-zero for a repeating timer and null for one that fires once.
   * Each subscription has a timer of its own, which starts with the subscription.
   */
  EEventTimer = 0,
  /**
   * A descriptor is readable (level-triggered; end of file and errors count as readable).
   * As a filter: iCode is the descriptor. It stays the subscriber's: the broker neither reads
   * nor closes it. Regular files and block devices are always readable.
   */
  EEventDescriptor = 1,
  /** An event between the update control and a feature; iCode is a TUserEventCode. */
  EEventUser = 3,
};

/** The exchange between the host's update control and the module (iType = EEventUser). */
enum TUserEventCode : TUint32 {
  /** Module to host, once, from FeatureCreate2: the id's bytes, without a terminator. */
  EUserEventFeatureCreated = 200,
  /** Host to module: read the update list and prepare it. Payload: the addressed id's bytes. */
  EUserEventControllerPrepare = 201,
  /** Module to host: TFeatureResultPayload, whether every loader is ready. */
  EUserEventPrepareResult = 202,
  /** Host to module: run the loaders. Payload: the addressed id's bytes. */
  EUserEventControllerInstall = 203,
  /** Module to host: TFeatureResultPayload, whether everything was installed. */
  EUserEventInstallResult = 204,
  /** Module to host: TFeatureProgressPayload, any number of times between 203 and 204. */
  EUserEventInstallProgress = 205,
  /** Host to module: stop. The payload is not examined: every module of this type obeys. */
  EUserEventControllerAbort = 206,
  /** Module to host: TFeatureResultPayload, always ETrue: the running loader has stopped. */
  EUserEventAbortResult = 207,
};

/**
 * One event, or one event filter: four machine words.
 *
 * A payload of a user event that addresses a feature is exactly the id's bytes: a terminator
 * that is counted in iSize makes it another id, and no module reacts.
 */
struct TEvent {
  TUint32 iType;  ///< a TEventType
  TUint32 iCode;  ///< user events: a TUserEventCode; descriptors: the descriptor; timers: 0
  TUint32 iSize;  ///< bytes at iData; in a timer filter the period in milliseconds
  /** The payload, never owned by the record. In a timer filter a plain word, not an address. */
  const void* iData;
};

/** Length of the id field of the payload records, its terminating NUL included. */
constexpr std::size_t KFeatureIdFieldSize = 64;

/** Payload of 202, 204 and 207. A wire format: 68 bytes. */
struct TFeatureResultPayload {
  char iFeatureId[KFeatureIdFieldSize];  ///< NUL-terminated, zero-filled
  TBool iResult;                         ///< in the machine's byte order
};

/** Payload of 205. A wire format: 65 bytes. */
struct TFeatureProgressPayload {
  char iFeatureId[KFeatureIdFieldSize];  ///< NUL-terminated, zero-filled
  TUint8 iPercentage;                    ///< overall progress in percent
};

static_assert(offsetof(TEvent, iCode) == 4 && offsetof(TEvent, iSize) == 8,
              "the first three words of an event are adjacent");
static_assert(sizeof(void*) != 4 || (sizeof(TEvent) == 16 && offsetof(TEvent, iData) == 12),
              "on a 32-bit machine an event is exactly four words");
static_assert(sizeof(TFeatureResultPayload) == 68 && offsetof(TFeatureResultPayload, iResult) == 64,
              "the result payload is a wire format");
static_assert(sizeof(TFeatureProgressPayload) == 65 &&
                  offsetof(TFeatureProgressPayload, iPercentage) == 64,
              "the progress payload is a wire format");
