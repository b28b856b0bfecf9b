#include "featurehost/src/LeftOver.h"

namespace featurehost {

LeftOver LeftProcess(const std::string& what, const std::string& how) {
  return {LeftOver::Kind::kProcess, what, !how.empty(),
          how.empty() ? "does not end, not even when killed" : how};
}

const char* KindName(LeftOver::Kind kind) {
  switch (kind) {
    case LeftOver::Kind::kProcess:
      return "process";
    case LeftOver::Kind::kMount:
      return "mount";
    case LeftOver::Kind::kLoopDevice:
      return "loop device";
    case LeftOver::Kind::kFolder:
      return "folder";
    case LeftOver::Kind::kNote:
      return "note";
  }
  return "";
}

std::string Describe(const LeftOver& leftOver) {
  return std::string(KindName(leftOver.kind)) + " " + leftOver.what;
}

}  // namespace featurehost
