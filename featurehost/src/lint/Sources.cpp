#include "featurehost/src/lint/Sources.h"

namespace featurehost::lint {

bool SourceFacts::HasPlausibleLength() const {
  // Deflate shrinks to a 1032nd at best, and what cannot be shrunk grows by little.
  constexpr std::uint64_t kBestRatio = 1032;
  constexpr std::uint64_t kGrowth = 64;
  constexpr std::uint64_t kAllowance = 65536;
  if (!ends.has_value() || !ends->isGzip || ends->inBlocks) {
    return false;
  }
  const std::uint64_t length = ends->lastLength;
  return length <= file.size * kBestRatio && length + length / kGrowth + kAllowance >= file.size;
}

std::optional<std::uint64_t> SourceFacts::Unpacked() const {
  if (deep != nullptr) {
    return deep->damage.empty() ? std::optional(deep->unpacked) : std::nullopt;
  }
  return HasPlausibleLength() ? std::optional<std::uint64_t>(ends->lastLength) : std::nullopt;
}

const SourceFacts& Sources::Of(const std::string& path) {
  const auto [entry, fresh] = known_.try_emplace(path);
  SourceFacts& facts = entry->second;
  if (fresh) {
    facts.file = environment_.Look(path);
    if (facts.file.type == FileFacts::Type::kFile && facts.file.readable) {
      facts.ends = environment_.Ends(path);
    }
    const auto unpacked = deep_.find(path);
    facts.deep = unpacked == deep_.end() ? nullptr : &unpacked->second;
  }
  return facts;
}

std::string SourceKey(const Item& item, const Update& update, const Environment& environment) {
  const std::string other = item.Key("altsource");
  const bool overridden = item.kind == ItemKind::kImage && !update.Text(other).empty() &&
                          environment.Look(update.Text(other)).type != FileFacts::Type::kMissing;
  return overridden ? other : item.Key("source");
}

}  // namespace featurehost::lint
