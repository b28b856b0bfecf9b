#include "featurehost/src/lint/Kind.h"

#include <algorithm>
#include <iterator>

namespace featurehost::lint {

namespace {

struct Row {
  Kind kind;
  const char* id;
  Severity severity;
};

constexpr auto kError = Severity::kError;
constexpr auto kWarning = Severity::kWarning;

constexpr Row kRows[] = {
    {Kind::kListMissing, "list-missing", kError},
    {Kind::kListEmpty, "list-empty", kWarning},
    {Kind::kItemWithoutWeight, "item-without-weight", kError},
    {Kind::kWeightWithoutItem, "weight-without-item", kWarning},
    {Kind::kItemEmpty, "item-empty", kError},
    {Kind::kItemDoubled, "item-doubled", kWarning},
    {Kind::kItemBlanks, "item-blanks", kWarning},
    {Kind::kCheckWithoutName, "check-without-name", kError},
    {Kind::kCheckWithoutImage, "check-without-image", kWarning},
    {Kind::kTooManyItems, "too-many-items", kError},
    {Kind::kWeightNotANumber, "weight-not-a-number", kWarning},
    {Kind::kWeightNegative, "weight-negative", kWarning},
    {Kind::kWeightsSum, "weights-sum", kWarning},
    {Kind::kPropertyMissing, "property-missing", kError},
    {Kind::kPropertyEmpty, "property-empty", kError},
    {Kind::kPropertyUnknown, "property-unknown", kWarning},
    {Kind::kAltSource, "altsource", kWarning},
    {Kind::kNumberUnparsable, "number-unparsable", kError},
    {Kind::kNumberNegative, "number-negative", kError},
    {Kind::kNumberTooLarge, "number-too-large", kError},
    {Kind::kSizeZero, "size-zero", kError},
    {Kind::kSizeBlocksHost, "size-blocks-host", kWarning},
    {Kind::kImageSizeZero, "image-size-zero", kWarning},
    {Kind::kImageOver4Gib, "image-over-4-gib", kWarning},
    {Kind::kCheckSizeZero, "check-size-zero", kError},
    {Kind::kCheckSizeTooLarge, "check-size-too-large", kError},
    {Kind::kTargetSizeDiffers, "targetsize-differs", kWarning},
    {Kind::kBlockSizeBare, "blocksize-bare", kWarning},
    {Kind::kBlockSizeMixed, "blocksize-mixed", kWarning},
    {Kind::kBlockSizeRefused, "blocksize-refused", kError},
    {Kind::kBlockSizeWraps, "blocksize-wraps", kWarning},
    {Kind::kBlockSizeShortReads, "blocksize-short-reads", kWarning},
    {Kind::kPathShell, "path-shell", kError},
    {Kind::kPathOption, "path-option", kError},
    {Kind::kPathRelative, "path-relative", kWarning},
    {Kind::kTargetFileName, "target-filename", kError},
    {Kind::kCommandTooLong, "command-too-long", kError},
    {Kind::kSourceMissing, "source-missing", kError},
    {Kind::kSourceUnusable, "source-unusable", kError},
    {Kind::kRangeBeyondSource, "range-beyond-source", kError},
    {Kind::kGzipBad, "gzip-bad", kError},
    {Kind::kGzipDamaged, "gzip-damaged", kError},
    {Kind::kGzipTrailingBytes, "gzip-trailing-bytes", kError},
    {Kind::kArchiveTooLarge, "archive-too-large", kError},
    {Kind::kArchiveMultiMember, "archive-multi-member", kError},
    {Kind::kArchiveTrailer, "archive-trailer", kError},
    {Kind::kTarDamaged, "tar-damaged", kError},
    {Kind::kChecksumDiffers, "checksum-differs", kError},
    {Kind::kMountPointMissing, "mountpoint-missing", kError},
    {Kind::kMountPointInUse, "mountpoint-in-use", kWarning},
    {Kind::kTargetMissing, "target-missing", kError},
    {Kind::kTargetNotADevice, "target-not-a-device", kWarning},
    {Kind::kTargetUnusable, "target-unusable", kError},
    {Kind::kTargetMounted, "target-mounted", kError},
    {Kind::kTargetAlsoMounted, "target-also-mounted", kWarning},
    {Kind::kTargetTooSmall, "target-too-small", kError},
    {Kind::kArchiveLargerThanTarget, "archive-larger-than-target", kWarning},
    {Kind::kEolFolderLeft, "eol-folder-left", kError},
    {Kind::kCardMissing, "card-missing", kError},
    {Kind::kToolMissing, "tool-missing", kError},
    {Kind::kToolNotExecutable, "tool-not-executable", kError},
    {Kind::kZcatAcceptsDamage, "zcat-accepts-damage", kWarning},
    {Kind::kKilledRun, "killed-run", kError},
    {Kind::kOtherInstall, "other-install", kError},
};

const Row& RowOf(Kind kind) {
  return *std::find_if(std::begin(kRows), std::end(kRows) - 1,
                       [kind](const Row& row) { return row.kind == kind; });
}

}  // namespace

const char* IdOf(Kind kind) {
  return RowOf(kind).id;
}

Severity SeverityOf(Kind kind) {
  return RowOf(kind).severity;
}

const char* NameOf(Severity severity) {
  return severity == Severity::kError ? "error" : "warning";
}

std::vector<Kind> AllKinds() {
  std::vector<Kind> kinds;
  for (const Row& row : kRows) {
    kinds.push_back(row.kind);
  }
  return kinds;
}

}  // namespace featurehost::lint
