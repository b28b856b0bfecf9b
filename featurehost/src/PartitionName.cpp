#include "featurehost/src/PartitionName.h"

#include <algorithm>
#include <cctype>

namespace featurehost {

namespace {

bool IsDigit(unsigned char character) {
  return std::isdigit(character) != 0;
}

}  // namespace

bool IsPartitionOf(const std::string& name, const std::string& disk) {
  if (disk.empty() || name.compare(0, disk.size(), disk) != 0) {
    return false;
  }
  std::string rest = name.substr(disk.size());
  const bool endsWithDigit = IsDigit(static_cast<unsigned char>(disk.back()));
  if (endsWithDigit && (rest.empty() || rest[0] != 'p')) {
    return false;
  }
  rest.erase(0, endsWithDigit ? 1 : 0);
  return !rest.empty() && std::all_of(rest.begin(), rest.end(), IsDigit);
}

}  // namespace featurehost
