#include "featurehost/src/lint/LintReport.h"

#include <nlohmann/json.hpp>

#include "featurehost/src/JsonLine.h"
#include "featurehost/src/Text.h"

namespace featurehost::lint {

namespace {

constexpr std::size_t kLongestValue = 100;

std::string Number(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string Short(const std::string& text) {
  return text.size() <= kLongestValue ? OneLine(text)
                                      : OneLine(text.substr(0, kLongestValue)) + "...";
}

}  // namespace

Count CountOf(const std::vector<Finding>& findings) {
  Count count;
  for (const Finding& finding : findings) {
    ++(SeverityOf(finding.kind) == Severity::kError ? count.errors : count.warnings);
  }
  return count;
}

std::string TextOf(const Count& count) {
  return Number(count.errors, "error") + ", " + Number(count.warnings, "warning");
}

std::string TextOf(const Finding& finding) {
  std::string line = std::string(NameOf(SeverityOf(finding.kind))) + " " + IdOf(finding.kind) +
                     ": feature '" + OneLine(finding.feature) + "'";
  if (!finding.item.empty()) {
    line += ", item '" + Short(finding.item) + "'";
  }
  if (!finding.property.empty()) {
    line += ", " + Short(finding.property) + " = \"" + Short(finding.value) + "\"";
  } else if (finding.value != finding.item) {
    line += ", " + Short(finding.value);
  }
  return line + ": " + OneLine(finding.why) + ". Instead: " + OneLine(finding.instead);
}

std::string JsonOf(const Finding& finding) {
  return JsonLine({{"feature", finding.feature},
                   {"item", finding.item},
                   {"property", finding.property},
                   {"value", finding.value},
                   {"severity", NameOf(SeverityOf(finding.kind))},
                   {"kind", IdOf(finding.kind)},
                   {"why", finding.why},
                   {"instead", finding.instead}});
}

std::string JsonSummary(const std::string& feature, const Count& count, bool deep) {
  return JsonLine({{"summary", "lint"},
                   {"feature", feature},
                   {"errors", count.errors},
                   {"warnings", count.warnings},
                   {"deep", deep}});
}

}  // namespace featurehost::lint
