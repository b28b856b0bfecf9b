#include <algorithm>
#include <string>

#include "featurehost/src/lint/Checks.h"
#include "featurehost/src/lint/Number.h"

namespace featurehost::lint {

namespace {

constexpr const char* kKey = "updateprogresslist";
constexpr long long kWhole = 100;
constexpr long long kLargest = 2147483647;

bool IsBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

/** Whether a weight is what it looks like. */
bool CheckWeight(const Subject& subject, const std::string& item, const std::string& text) {
  const Number number = ReadNumber(text);
  if (!number.found || !IsBlank(number.rest)) {
    subject.findings.Add(Kind::kWeightNotANumber, {item, kKey, text},
                         "this weight is read as " +
                             std::to_string(std::min(number.value, kLargest)) +
                             ", and the percentages are wrong",
                         "a whole decimal number");
    return false;
  }
  if (number.value < 0) {
    subject.findings.Add(Kind::kWeightNegative, {item, kKey, text},
                         "a negative weight makes the percentages jump about",
                         "a number from 0 to 100");
    return false;
  }
  return true;
}

}  // namespace

void CheckWeights(const Subject& subject) {
  const auto& names = subject.update.Names();
  const auto& weights = subject.update.Weights();
  const std::size_t count = std::min(names.size(), weights.size());
  long long sum = 0;
  bool good = count > 0;
  for (std::size_t index = 0; index < count; ++index) {
    good = CheckWeight(subject, names[index], weights[index]) && good;
    sum += std::clamp(ReadNumber(weights[index]).value, 0LL, kLargest);
  }
  if (good && sum != kWhole) {
    subject.findings.Add(
        Kind::kWeightsSum, {"", kKey, subject.update.Text(kKey)},
        sum == 0 ? "the weights sum to 0: the progress stays at 0 % throughout"
                 : "the weights sum to " + std::to_string(sum) +
                       ": the percentage is relative to that, so no weight is what it says",
        "weights that sum to 100");
  }
}

}  // namespace featurehost::lint
