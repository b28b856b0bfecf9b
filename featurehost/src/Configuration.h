#pragma once

#include <map>
#include <string>

#include "featurehost/src/Properties.h"
#include "host/Types.h"

namespace featurehost {

/** A configuration file: a table of properties for each feature id. */
class Configuration {
 public:
  /** Read and check a file. Throws HostError with the file, the line and the key. */
  static Configuration Load(const std::string& path);

  /**
   * The feature to host: the wanted one, or without a wish the only one there is.
   * Throws HostError when there is no such choice.
   */
  const TFeatureId& Choose(const std::string& wanted) const;
  /** The properties of a feature that Choose has named. */
  const Properties::Values& Of(const TFeatureId& featureId) const;

 private:
  explicit Configuration(std::string path) : path_(std::move(path)) {}

  std::string Ids() const;

  std::string path_;
  std::map<TFeatureId, Properties::Values> features_;
};

/** Throws HostError when the contract cannot carry the id. @param origin  begins the error line */
void CheckFeatureId(const std::string& featureId, const std::string& origin);

}  // namespace featurehost
