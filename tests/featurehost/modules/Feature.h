#pragma once

#include <cstring>
#include <string>

#include "host/FeatureModule.h"

/**
 * A feature that announces itself and obeys: prepare and install succeed, abort is acknowledged.
 * The modules of the tests override what they do otherwise.
 */
class Feature : public IFeatureModule2, public IEventObserver {
 public:
  Feature(TFeatureId featureId, IEventBroker& broker, const IFeatureProperties& properties)
      : featureId_(std::move(featureId)), broker_(broker), properties_(properties) {
    broker_.Subscribe(prepare_, this);
    broker_.Subscribe(install_, this);
    broker_.Subscribe(abort_, this);
    Post(EUserEventFeatureCreated, featureId_.data(), featureId_.size());
  }

  ~Feature() override {
    broker_.Unsubscribe(prepare_, this);
    broker_.Unsubscribe(install_, this);
    broker_.Unsubscribe(abort_, this);
  }

  Feature(const Feature&) = delete;
  Feature& operator=(const Feature&) = delete;

  void OnEvent(const TEvent& event) override {
    if (event.iType != EEventUser) {
      Other(event);
    } else if (event.iCode == EUserEventControllerPrepare) {
      Prepare();
    } else if (event.iCode == EUserEventControllerInstall) {
      Install();
    } else if (event.iCode == EUserEventControllerAbort) {
      Abort();
    }
  }

 protected:
  virtual void Prepare() { PostResult(EUserEventPrepareResult, ETrue); }
  virtual void Install() { PostResult(EUserEventInstallResult, ETrue); }
  virtual void Abort() { PostResult(EUserEventAbortResult, ETrue); }
  virtual void Other(const TEvent& /*event*/) {}

  void Post(TUint32 code, const void* payload, std::size_t size) {
    broker_.PostEvent({EEventUser, code, static_cast<TUint32>(size), payload});
  }

  void PostResult(TUint32 code, TBool result) {
    TFeatureResultPayload payload{};
    featureId_.copy(payload.iFeatureId, sizeof payload.iFeatureId - 1);
    payload.iResult = result;
    Post(code, &payload, sizeof payload);
  }

  void PostProgress(unsigned percent) {
    TFeatureProgressPayload payload{};
    featureId_.copy(payload.iFeatureId, sizeof payload.iFeatureId - 1);
    payload.iPercentage = static_cast<TUint8>(percent);
    Post(EUserEventInstallProgress, &payload, sizeof payload);
  }

  std::string Property(const std::string& key) const {
    std::string value;
    properties_.GetProperty(featureId_, key, value);
    return value;
  }

  TFeatureId featureId_;
  IEventBroker& broker_;
  const IFeatureProperties& properties_;

 private:
  const TEvent prepare_{EEventUser, EUserEventControllerPrepare, 0, nullptr};
  const TEvent install_{EEventUser, EUserEventControllerInstall, 0, nullptr};
  const TEvent abort_{EEventUser, EUserEventControllerAbort, 0, nullptr};
};

/** The two entries of a module whose feature is of the given class. */
#define FEATURE_MODULE(TYPE)                                                      \
  const char* FeatureType() {                                                     \
    return #TYPE;                                                                 \
  }                                                                               \
  IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker&, \
                                  IEventBroker& eventBroker,                      \
                                  const IFeatureProperties& properties) {         \
    return new TYPE(featureId, eventBroker, properties);                          \
  }
