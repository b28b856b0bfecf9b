#include "featurehost/src/UpdateController.h"

#include <cstring>
#include <utility>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Log.h"
#include "featurehost/src/StopSignal.h"
#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

std::string Quoted(const std::string& featureId) {
  return "'" + OneLine(featureId) + "'";
}

/** The id field of a payload record, up to its terminator. */
std::string IdField(const char* field) {
  return {field, strnlen(field, KFeatureIdFieldSize)};
}

}  // namespace

UpdateController::UpdateController(EventLoop& loop, Broker& broker, TFeatureId featureId, Goal goal,
                                   RunReport& report)
    : loop_(loop), broker_(broker), featureId_(std::move(featureId)), goal_(goal), report_(report) {
  TUint32 code = EUserEventFeatureCreated;
  for (TEvent& filter : filters_) {
    filter = TEvent{EEventUser, code++, 0, nullptr};
    broker_.Subscribe(filter, this);
  }
}

UpdateController::~UpdateController() {
  for (const TEvent& filter : filters_) {
    broker_.Unsubscribe(filter, this);
  }
}

Outcome UpdateController::Run() {
  loop_.OnSignal(kStopSignal, [this] { Abort(); });
  broker_.DeliverQueue();
  if (!announced_) {
    throw HostError(ExitCode::kModuleNotLoaded,
                    "the module did not announce feature " + Quoted(featureId_));
  }
  if (StopWanted()) {
    Abort();
  }
  loop_.Run();
  return outcome_;
}

void UpdateController::Abort() {
  if (abortPosted_) {
    Finish(ExitCode::kAborted,
           "aborted without waiting for feature " + Quoted(featureId_) + " any longer",
           std::nullopt);
    return;
  }
  abortPosted_ = true;
  Log::Instance().Host(Level::kInfo, "Abort", "the user wants to stop the update");
  Post(EUserEventControllerAbort);
}

void UpdateController::OnEvent(const TEvent& event) {
  RunEvent decoded{event.iCode, "", std::nullopt, std::nullopt, Elapsed()};
  if (!Decode(event, decoded)) {
    Log::Instance().Host(Level::kError, "OnEvent",
                         "event " + std::to_string(event.iCode) + " with a payload of " +
                             std::to_string(event.iSize) + " bytes makes no sense; ignored");
    return;
  }
  if (decoded.feature != featureId_) {
    return;
  }
  switch (event.iCode) {
    case EUserEventFeatureCreated:
      Announced(decoded);
      break;
    case EUserEventPrepareResult:
      Prepared(decoded);
      break;
    case EUserEventInstallResult:
      Installed(decoded);
      break;
    case EUserEventAbortResult:
      Aborted(decoded);
      break;
    case EUserEventControllerAbort:
      abortDelivered_ = true;
      report_.Event(decoded);
      break;
    default:
      report_.Event(decoded);
      break;
  }
}

void UpdateController::Announced(const RunEvent& event) {
  report_.Event(event);
  if (!announced_) {
    announced_ = true;
    Post(EUserEventControllerPrepare);
  }
}

void UpdateController::Prepared(const RunEvent& event) {
  if (abortPosted_) {
    report_.Event(event);  // the acknowledgement of the abort is still to come
  } else if (!*event.success) {
    Finish(ExitCode::kPrepareFailed,
           "feature " + Quoted(featureId_) + " cannot be prepared; the log says why", event);
  } else if (goal_ == Goal::kPrepare) {
    Finish(ExitCode::kSuccess, "prepared " + OneLine(featureId_), event);
  } else {
    report_.Event(event);
    Post(EUserEventControllerInstall);
  }
}

void UpdateController::Installed(const RunEvent& event) {
  if (abortDelivered_) {
    report_.Event(event);
  } else if (*event.success) {
    const std::string late = abortPosted_ ? "; the abort came too late" : "";
    Finish(ExitCode::kSuccess,
           "installed " + OneLine(featureId_) + " in " + Clock(event.elapsed) + late, event);
  } else {
    Finish(ExitCode::kInstallFailed,
           "the install of feature " + Quoted(featureId_) + " failed; the log says why", event);
  }
}

void UpdateController::Aborted(const RunEvent& event) {
  if (abortPosted_) {
    Finish(ExitCode::kAborted, "aborted feature " + Quoted(featureId_), event);
  } else {
    report_.Event(event);
  }
}

void UpdateController::Finish(ExitCode code, const std::string& text,
                              const std::optional<RunEvent>& last) {
  if (!loop_.Stopped()) {
    outcome_ = {code, text, last, Elapsed()};
    loop_.Stop();
  }
}

bool UpdateController::Decode(const TEvent& event, RunEvent& decoded) {
  const auto* bytes = static_cast<const char*>(event.iData);
  switch (event.iCode) {
    case EUserEventPrepareResult:
    case EUserEventInstallResult:
    case EUserEventAbortResult: {
      TFeatureResultPayload payload{};
      if (event.iSize != sizeof payload) {
        return false;
      }
      std::memcpy(&payload, bytes, sizeof payload);
      decoded.feature = IdField(payload.iFeatureId);
      decoded.success = payload.iResult != EFalse;
      return true;
    }
    case EUserEventInstallProgress: {
      TFeatureProgressPayload payload{};
      if (event.iSize != sizeof payload) {
        return false;
      }
      std::memcpy(&payload, bytes, sizeof payload);
      decoded.feature = IdField(payload.iFeatureId);
      decoded.percent = payload.iPercentage;
      return true;
    }
    default:
      decoded.feature.assign(event.iSize == 0 ? "" : bytes, event.iSize);
      return true;
  }
}

void UpdateController::Post(TUint32 code) {
  broker_.PostEvent({EEventUser, code, static_cast<TUint32>(featureId_.size()), featureId_.data()});
}

std::chrono::milliseconds UpdateController::Elapsed() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Time::now() - start_);
}

}  // namespace featurehost
