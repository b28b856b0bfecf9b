#include "MainCPULoader/src/LoaderFactory.h"

#include "MainCPULoader/src/ArchiveLoader.h"
#include "MainCPULoader/src/ArchiveLoaderOutputProcess.h"
#include "MainCPULoader/src/EOLSettingsLoader.h"
#include "MainCPULoader/src/FactoryDataLoader.h"
#include "MainCPULoader/src/ImageChecker.h"
#include "MainCPULoader/src/ImageLoader.h"
#include "MainCPULoader/src/InputProcess.h"
#include "MainCPULoader/src/StringIterator.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/LoaderFactory");

constexpr char KSeparator = ';';
const std::string KCheckPrefix = "check";

/** What every loader is constructed with besides its name. */
struct TLoaderContext {
  std::string& iFeatureId;
  IEventBroker& iEventBroker;
  const IFeatureProperties& iProperties;
  ILoaderCallback& iCallback;
};

ILoader* CreateArchiveLoader(const std::string& item, const TLoaderContext& context) {
  KLog.Info("Create", "Added archive loader: ", item);
  auto* decompressor = new CInputProcess;
  auto* unpacker = new CArchiveLoaderOutputProcess;
  return new CArchiveLoader(item, context.iFeatureId, context.iEventBroker, context.iProperties,
                            context.iCallback, decompressor, unpacker);
}

ILoader* CreateFactoryDataLoader(const std::string& item, const TLoaderContext& context) {
  KLog.Info("Create", "Added loader: ", item);
  return new CFactoryDataLoader(item, context.iFeatureId, context.iEventBroker, context.iProperties,
                                context.iCallback);
}

ILoader* CreateEOLSettingsLoader(const std::string& item, const TLoaderContext& context) {
  KLog.Info("Create", "Added loader: ", item);
  return new CEOLSettingsLoader(item, context.iFeatureId, context.iProperties, context.iCallback);
}

ILoader* CreateImageChecker(const std::string& item, const TLoaderContext& context) {
  KLog.Info("Create", "Added image checker: ", item);
  auto* decompressor = new CInputProcess;
  return new CImageChecker(item.substr(KCheckPrefix.length()), context.iFeatureId,
                           context.iEventBroker, context.iProperties, context.iCallback,
                           decompressor);
}

ILoader* CreateImageLoader(const std::string& item, const TLoaderContext& context) {
  KLog.Info("Create", "Added image loader: ", item);
  return new CImageLoader(item, context.iFeatureId, context.iEventBroker, context.iProperties,
                          context.iCallback);
}

ILoader* CreateLoader(const std::string& item, const TLoaderContext& context) {
  if (item == "userfs") {
    return CreateArchiveLoader(item, context);
  }
  if (item == "factorydata") {
    return CreateFactoryDataLoader(item, context);
  }
  if (item == "eolsettings") {
    return CreateEOLSettingsLoader(item, context);
  }
  if (item.compare(0, KCheckPrefix.length(), KCheckPrefix) == 0) {
    return CreateImageChecker(item, context);
  }
  return CreateImageLoader(item, context);
}

}  // namespace

void CLoaderFactory::Create(const std::string& updateList, const std::string& progressList,
                            std::vector<std::pair<ILoader*, int>>& loaders, std::string& featureId,
                            IEventBroker& eventBroker, const IFeatureProperties& properties,
                            ILoaderCallback& callback) {
  const TLoaderContext context{featureId, eventBroker, properties, callback};
  stringiterator<char> items(updateList, KSeparator);
  stringiterator<char> weights(progressList, KSeparator);

  for (; !items.AtEnd() && !weights.AtEnd(); ++items, ++weights) {
    const std::string item = *items;
    const std::string weight = *weights;
    // The pieces follow each other without a blank; readers of the log match this text.
    KLog.Info("Create", "Found loader: ", item, "with progress", weight);
    loaders.emplace_back(CreateLoader(item, context), DecimalInt32(weight));
  }
}
