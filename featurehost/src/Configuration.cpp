#include "featurehost/src/Configuration.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <sys/stat.h>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/Toml.h"
#include "host/Event.h"

namespace featurehost {

namespace {

[[noreturn]] void Refuse(const std::string& line) {
  throw HostError(ExitCode::kUsage, line);
}

std::string ReadAll(const std::string& path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    Refuse(path + ": is a folder, not a configuration file");
  }
  if (!file) {
    Refuse(path + ": cannot read the configuration: " + ErrorText(errno));
  }
  content << file.rdbuf();
  if (file.bad()) {
    Refuse(path + ": cannot read the configuration: " + ErrorText(errno));
  }
  return content.str();
}

std::string At(const std::string& path, const toml::source_region& source) {
  return path + ":" + std::to_string(source.begin.line) + ": ";
}

toml::table Parse(const std::string& path) {
  const std::string content = ReadAll(path);
  try {
    return toml::parse(content, path);
  } catch (const toml::parse_error& error) {
    Refuse(At(path, error.source()) + "not valid TOML: " + OneLine(error.description()));
  }
}

std::string TypeName(const toml::node& node) {
  std::ostringstream name;
  name << node.type();
  return name.str();
}

std::optional<std::string> PropertyText(const toml::node& node) {
  if (const auto* text = node.as_string()) {
    return text->get();
  }
  if (const auto* number = node.as_integer()) {
    return std::to_string(number->get());
  }
  if (const auto* truth = node.as_boolean()) {
    return truth->get() ? "true" : "false";
  }
  return std::nullopt;
}

std::string CheckedText(const std::string& path, const TFeatureId& featureId,
                        const std::string& key, const toml::node& node) {
  const std::string where = At(path, node.source()) + "key '" + OneLine(key) + "' of feature '" +
                            OneLine(featureId) + "' ";
  const auto text = PropertyText(node);
  if (!text.has_value()) {
    Refuse(where + "is of type " + TypeName(node) + "; write a string, an integer or a boolean");
  }
  if (text->find('\0') != std::string::npos) {
    Refuse(where + "contains a NUL character, which no property can hold");
  }
  return *text;
}

}  // namespace

Configuration Configuration::Load(const std::string& path) {
  Configuration configuration(path);
  const toml::table document = Parse(path);
  for (const auto& [id, node] : document) {
    const TFeatureId featureId(id.str());
    const auto* table = node.as_table();
    if (table == nullptr) {
      Refuse(At(path, node.source()) + "key '" + OneLine(featureId) +
             "' stands outside of a feature's table; begin one with [FEATURE-ID] above it");
    }
    CheckFeatureId(featureId, At(path, node.source()));
    auto& values = configuration.features_[featureId];
    for (const auto& [key, property] : *table) {
      const std::string name(key.str());
      values[name] = CheckedText(path, featureId, name, property);
    }
  }
  return configuration;
}

const TFeatureId& Configuration::Choose(const std::string& wanted) const {
  if (features_.empty()) {
    Refuse(path_ + ": holds no feature; add a table [FEATURE-ID] with its properties");
  }
  if (wanted.empty()) {
    if (features_.size() > 1) {
      Refuse(path_ + ": holds " + std::to_string(features_.size()) +
             " features; choose one with --feature: " + Ids());
    }
    return features_.begin()->first;
  }
  const auto entry = features_.find(wanted);
  if (entry == features_.end()) {
    Refuse(path_ + ": has no table for feature '" + OneLine(wanted) + "'; it holds: " + Ids());
  }
  return entry->first;
}

const Properties::Values& Configuration::Of(const TFeatureId& featureId) const {
  return features_.at(featureId);
}

std::string Configuration::Ids() const {
  std::string ids;
  for (const auto& entry : features_) {
    ids += (ids.empty() ? "" : ", ") + OneLine(entry.first);
  }
  return ids;
}

void CheckFeatureId(const std::string& featureId, const std::string& origin) {
  constexpr std::size_t kLongest = KFeatureIdFieldSize - 1;
  if (featureId.empty()) {
    Refuse(origin + "the feature id is empty; it takes 1 to " + std::to_string(kLongest) +
           " bytes");
  }
  if (featureId.size() > kLongest) {
    Refuse(origin + "feature id '" + OneLine(featureId) + "' has " +
           std::to_string(featureId.size()) + " bytes; at most " + std::to_string(kLongest) +
           " are possible");
  }
  if (featureId.find('\0') != std::string::npos) {
    Refuse(origin + "the feature id contains a NUL character");
  }
}

}  // namespace featurehost
