// Update lists and progress lists: which loaders the factory makes of them and with which weights,
// and how featurehost reads the same lists. The input is both lists, with a line end between.

#include <algorithm>
#include <fuzzer/FuzzedDataProvider.h>

#include "MainCPULoader/src/ArchiveLoader.h"
#include "MainCPULoader/src/EOLSettingsLoader.h"
#include "MainCPULoader/src/FactoryDataLoader.h"
#include "MainCPULoader/src/ImageChecker.h"
#include "MainCPULoader/src/ImageLoader.h"
#include "MainCPULoader/src/LoaderFactory.h"
#include "featurehost/src/Items.h"
#include "fuzz/support/Expected.h"
#include "fuzz/support/FakeSystem.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"

namespace {

/** The pieces of a list; what follows the last separator counts only when it is not empty. */
std::vector<std::string> Pieces(const std::string& list) {
  std::vector<std::string> pieces(1);
  for (const char character : list) {
    if (character == ';') {
      pieces.emplace_back();
    } else {
      pieces.back() += character;
    }
  }
  if (pieces.back().empty()) {
    pieces.pop_back();
  }
  return pieces;
}

bool IsOfKind(const ILoader* loader, const std::string& item) {
  if (item == "userfs") {
    return dynamic_cast<const CArchiveLoader*>(loader) != nullptr;
  }
  if (item == "factorydata") {
    return dynamic_cast<const CFactoryDataLoader*>(loader) != nullptr;
  }
  if (item == "eolsettings") {
    return dynamic_cast<const CEOLSettingsLoader*>(loader) != nullptr;
  }
  if (item.rfind("check", 0) == 0) {
    return dynamic_cast<const CImageChecker*>(loader) != nullptr;
  }
  return dynamic_cast<const CImageLoader*>(loader) != nullptr;
}

void CheckFactory(const std::string& updateList, const std::string& progressList) {
  std::string featureId = "feature";
  support::FakeBroker broker;
  const support::FakeProperties properties;
  support::FakeCallback callback;
  std::vector<std::pair<ILoader*, int>> loaders;
  CLoaderFactory().Create(updateList, progressList, loaders, featureId, broker, properties,
                          callback);

  const auto items = Pieces(updateList);
  const auto weights = Pieces(progressList);
  fuzz::Require(loaders.size() == std::min(items.size(), weights.size()), "number of loaders");
  for (std::size_t index = 0; index < loaders.size(); ++index) {
    fuzz::Require(IsOfKind(loaders[index].first, items[index]), "kind of " + items[index]);
    fuzz::Require(loaders[index].second == fuzz::ExpectedInt32(weights[index]),
                  "weight of " + items[index]);
    if (auto* archive = dynamic_cast<CArchiveLoader*>(loaders[index].first)) {
      archive->FinalizeLoading(EFalse);  // one that never worked keeps its pipes, on purpose
    }
    delete loaders[index].first;
  }
}

void CheckItems(const std::string& updateList, const std::string& progressList) {
  const featurehost::Items items(updateList, progressList);
  const auto names = items.Names();
  for (const unsigned percent : {0U, 1U, 50U, 99U, 100U, 255U}) {
    const std::string name = items.At(percent);
    fuzz::Require(
        names.empty() ? name.empty() : std::find(names.begin(), names.end(), name) != names.end(),
        "item at " + std::to_string(percent));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto lineEnd = std::min(text.find('\n'), text.size());
  const std::string updateList = text.substr(0, lineEnd);
  const std::string progressList = lineEnd == text.size() ? "" : text.substr(lineEnd + 1);

  FuzzedDataProvider nothing(nullptr, 0);
  const fuzz::FakeSystem system(nothing);
  CheckFactory(updateList, progressList);
  CheckItems(updateList, progressList);
  return 0;
}
