#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/FakeBroker.h"

namespace support {

/** The 64-byte id field of a payload: at most 63 bytes of the id, the rest zero. */
inline std::string IdField(const std::string& featureId) {
  std::string field = featureId.substr(0, KFeatureIdFieldSize - 1);
  field.resize(KFeatureIdFieldSize, '\0');
  return field;
}

/** The bytes of a result payload, written out independently of its record. */
inline std::string ResultBytes(const std::string& featureId, TBool result) {
  std::string word(sizeof result, '\0');
  std::memcpy(word.data(), &result, sizeof result);
  return IdField(featureId) + word;
}

/** The bytes of a progress payload, written out independently of its record. */
inline std::string ProgressBytes(const std::string& featureId, TUint8 percentage) {
  return IdField(featureId) + static_cast<char>(percentage);
}

/**
 * A posted event as a short text: "created feature", "prepared 1", "installed 0", "progress 45",
 * "aborted 1". One whose payload is not exactly as laid out for this id becomes "malformed".
 */
inline std::string Answer(const PostedEvent& post, const std::string& featureId) {
  const auto result = [&](const char* name) -> std::string {
    for (const TBool value : {EFalse, ETrue}) {
      if (post.payload == ResultBytes(featureId, value)) {
        return std::string(name) + " " + std::to_string(value);
      }
    }
    return "malformed";
  };
  if (post.type != EEventUser) {
    return "malformed";
  }
  switch (post.code) {
    case EUserEventFeatureCreated:
      return "created " + post.payload;
    case EUserEventPrepareResult:
      return result("prepared");
    case EUserEventInstallResult:
      return result("installed");
    case EUserEventAbortResult:
      return result("aborted");
    case EUserEventInstallProgress: {
      const auto percentage = static_cast<TUint8>(post.payload.empty() ? 0 : post.payload.back());
      return post.payload == ProgressBytes(featureId, percentage)
                 ? "progress " + std::to_string(percentage)
                 : "malformed";
    }
    default:
      return "unexpected " + std::to_string(post.code);
  }
}

inline std::vector<std::string> Answers(const FakeBroker& broker, const std::string& featureId) {
  std::vector<std::string> answers;
  for (const auto& post : broker.Posts()) {
    answers.push_back(Answer(post, featureId));
  }
  return answers;
}

}  // namespace support
