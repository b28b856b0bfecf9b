#include "featurehost/src/JsonReport.h"

#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "featurehost/src/JsonLine.h"

namespace featurehost {

namespace {

const std::map<TUint32, std::string> kEventNames = {
    {EUserEventFeatureCreated, "feature_created"}, {EUserEventControllerPrepare, "prepare"},
    {EUserEventPrepareResult, "prepare_result"},   {EUserEventControllerInstall, "install"},
    {EUserEventInstallResult, "install_result"},   {EUserEventInstallProgress, "install_progress"},
    {EUserEventControllerAbort, "abort"},          {EUserEventAbortResult, "abort_result"},
};

}  // namespace

JsonReport::JsonReport(Output& output, std::string featureId)
    : output_(output), featureId_(std::move(featureId)) {}

void JsonReport::Event(const RunEvent& event) {
  nlohmann::ordered_json object;
  object["event"] = kEventNames.at(event.code);
  object["code"] = event.code;
  object["feature"] = event.feature;
  if (event.percent.has_value()) {
    object["percent"] = *event.percent;
  }
  if (event.success.has_value()) {
    object["success"] = *event.success;
  }
  object["elapsed_ms"] = event.elapsed.count();
  output_.Write(JsonLine(object));
}

void JsonReport::LeftBehind(const std::vector<LeftOver>& leftOvers) {
  nlohmann::ordered_json object;
  object["event"] = "left_behind";
  object["feature"] = featureId_;
  object["items"] = JsonArray(leftOvers);
  output_.Write(JsonLine(object));
}

void JsonReport::Result(const Outcome& outcome) {
  if (outcome.last.has_value()) {
    Event(*outcome.last);
  }
}

}  // namespace featurehost
