#pragma once

#include <string>
#include <utility>
#include <vector>

#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "host/EventBroker.h"
#include "host/FeatureProperties.h"

/** Turns the update list into loaders. Stateless; one for each feature, owned by the controller. */
class CLoaderFactory {
 public:
  CLoaderFactory() = default;
  virtual ~CLoaderFactory() = default;

  CLoaderFactory(const CLoaderFactory&) = delete;
  CLoaderFactory& operator=(const CLoaderFactory&) = delete;

  /**
   * Append one loader for each item, in list order, with its weight.
   *
   * Both lists are separated by ";". An item without a weight is dropped and a surplus weight
   * ignored, both in silence; a weight that is not a number is 0. Unknown items become image
   * loaders. Never fails.
   *
   * @param loaders    the new loaders become the property of the list's owner.
   * @param callback   told by every loader how it fares; must outlive the loaders, as must the
   *                   broker and the properties.
   */
  virtual void Create(const std::string& updateList, const std::string& progressList,
                      std::vector<std::pair<ILoader*, int>>& loaders, std::string& featureId,
                      IEventBroker& eventBroker, const IFeatureProperties& properties,
                      ILoaderCallback& callback);
};
