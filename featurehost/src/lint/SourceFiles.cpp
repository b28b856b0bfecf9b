#include <cctype>
#include <string>

#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

namespace {

constexpr std::uint64_t kArchiveLimit = 0x80000000;
const std::string kOneMember =
    "an archive packed in one go by gzip, less than 2 GiB unpacked, with nothing behind it";

bool IsCompressed(ItemKind kind) {
  return kind == ItemKind::kArchive || kind == ItemKind::kImage || kind == ItemKind::kCheck;
}

/** Whether there is a file that can be looked into. */
bool CheckFile(const Subject& subject, const Item& item, const Findings::Place& place) {
  const SourceFacts& source = subject.sources.Of(place.value);
  using Type = FileFacts::Type;
  const Type type = source.file.type;
  if (type == Type::kMissing) {
    subject.findings.Add(Kind::kSourceMissing, place, "there is no such file, and the item fails",
                         "the path of the file as this unit sees it");
    return false;
  }
  const bool isUnsuited =
      type == Type::kFolder || (type != Type::kFile && item.kind == ItemKind::kArchive);
  const bool isUnreadable =
      !source.file.readable || (IsCompressed(item.kind) && type == Type::kFile && !source.ends);
  if (isUnsuited || isUnreadable) {
    subject.findings.Add(Kind::kSourceUnusable, place,
                         isUnsuited ? "this is not a file, and the item fails"
                                    : "the file cannot be read, and the item fails",
                         "the path of a file that can be read");
    return false;
  }
  return type == Type::kFile;
}

void CheckUnpackedArchive(const Subject& subject, const Findings::Place& place,
                          const DeepFacts& deep) {
  if (deep.members > 1) {
    subject.findings.Add(Kind::kArchiveMultiMember, place,
                         "the archive has " + std::to_string(deep.members) +
                             " members, and only as many bytes as the last one has arrive",
                         kOneMember);
  } else if (deep.bytesBehind || deep.zerosBehind) {
    subject.findings.Add(Kind::kArchiveTrailer, place,
                         "there are bytes behind the archive, which are taken for its size",
                         kOneMember);
  } else if (deep.unpacked >= kArchiveLimit) {
    subject.findings.Add(Kind::kArchiveTooLarge, place,
                         "unpacked it has " + std::to_string(deep.unpacked) +
                             " bytes; from 2 GiB on the rest is missing after a success",
                         kOneMember);
  }
  if (!deep.tarProblem.empty()) {
    subject.findings.Add(Kind::kTarDamaged, place,
                         "unpacked it is no whole tar archive (" + deep.tarProblem +
                             "); what tar says about it is not looked at",
                         "an archive made by tar");
  }
}

void CheckArchiveEnds(const Subject& subject, const Findings::Place& place,
                      const SourceFacts& source) {
  if (source.ends->inBlocks) {
    subject.findings.Add(Kind::kArchiveMultiMember, place,
                         "the archive is packed in blocks, each a member of its own, and only as "
                         "many bytes as the last one has arrive",
                         kOneMember);
  } else if (!source.HasPlausibleLength()) {
    subject.findings.Add(
        Kind::kArchiveTrailer, place,
        "its last four bytes say that it has " + std::to_string(source.ends->lastLength) +
            " bytes unpacked, which a file of " + std::to_string(source.file.size) +
            " bytes cannot be: several members, 4 GiB or more, or bytes behind it",
        kOneMember);
  } else if (source.ends->lastLength >= kArchiveLimit) {
    subject.findings.Add(Kind::kArchiveTooLarge, place,
                         "unpacked it has " + std::to_string(source.ends->lastLength) +
                             " bytes; from 2 GiB on the rest is missing after a success",
                         kOneMember);
  }
}

void CheckCompressed(const Subject& subject, const Item& item, const Findings::Place& place) {
  const SourceFacts& source = subject.sources.Of(place.value);
  const bool isArchive = item.kind == ItemKind::kArchive;
  if (!source.ends->isGzip) {
    subject.findings.Add(Kind::kGzipBad, place, "this is no gzip file: it cannot be unpacked",
                         isArchive ? kOneMember : "a file that was compressed with gzip");
  } else if (source.deep == nullptr) {
    if (isArchive) {
      CheckArchiveEnds(subject, place, source);
    }
  } else if (!source.deep->damage.empty()) {
    subject.findings.Add(Kind::kGzipDamaged, place,
                         "it cannot be unpacked to its end: " + source.deep->damage,
                         "an undamaged copy of the file");
  } else if (isArchive) {
    CheckUnpackedArchive(subject, place, *source.deep);
  } else if (source.deep->bytesBehind) {
    subject.findings.Add(Kind::kGzipTrailingBytes, place,
                         "there are bytes behind the compressed image; zcat unpacks it and then "
                         "fails, and so does the item",
                         "the compressed image alone");
  }
}

std::string LowerCase(std::string text) {
  for (char& letter : text) {
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  }
  return text;
}

void CheckChecksum(const Subject& subject, const Item& item, const std::string& source) {
  const DeepFacts* deep = subject.sources.Of(source).deep;
  const std::string key = item.Key("checksum");
  const std::string text = subject.update.Text(key);
  if (deep == nullptr || !deep->damage.empty() || deep->digest.empty() ||
      deep->digest.size() != text.size()) {
    return;
  }
  const std::string wanted = LowerCase(text);
  if (wanted != deep->digest && wanted != deep->compressedDigest) {
    subject.findings.Add(Kind::kChecksumDiffers, {item.name, key, text},
                         "it is neither the digest of the unpacked image (" + deep->digest +
                             ") nor that of the file: this is not the image that is meant, and "
                             "nothing else compares it",
                         "the image that belongs to the checksum, or its checksum");
  }
}

}  // namespace

void CheckSources(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    const std::string key = SourceKey(item, subject.update, subject.environment);
    const Findings::Place place{item.name, key, subject.update.Text(key)};
    if (place.value.empty() || !CheckFile(subject, item, place)) {
      continue;
    }
    if (IsCompressed(item.kind)) {
      CheckCompressed(subject, item, place);
    }
    if (item.kind == ItemKind::kImage) {
      CheckChecksum(subject, item, place.value);
    }
  }
}

}  // namespace featurehost::lint
