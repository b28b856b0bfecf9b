#include <string>

#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

namespace {

void CheckTool(const Subject& subject, const Item& item, const std::string& tool) {
  const Findings::Place place{item.name, "", tool};
  const bool isAbsolute = tool.front() == '/';
  switch (subject.environment.Tool(tool)) {
    case ToolState::kMissing:
      subject.findings.Add(Kind::kToolMissing, place,
                           isAbsolute ? "the item runs it, and there is no such file"
                                      : "the item runs it, and it is not on the search path",
                           isAbsolute ? "install it there"
                                      : "install it, or add its folder to PATH (such as /sbin)");
      break;
    case ToolState::kNotExecutable:
      subject.findings.Add(Kind::kToolNotExecutable, place,
                           "the item runs it, and it may not be executed", "make it executable");
      break;
    case ToolState::kUsable:
      if (tool.find("zcat") != std::string::npos &&
          subject.environment.AcceptsDamage(tool).value_or(false)) {
        subject.findings.Add(Kind::kZcatAcceptsDamage, place,
                             "it ends with 0 for a damaged file, so the item succeeds with damaged "
                             "data",
                             "look at the files before: featurehost lint --deep, or gunzip -t");
      }
      break;
  }
}

}  // namespace

void CheckTools(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    for (const char* tool : RuleOf(item.kind).tools) {
      CheckTool(subject, item, tool);
    }
  }
}

}  // namespace featurehost::lint
