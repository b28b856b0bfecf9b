#include "featurehost/src/lint/Kind.h"

#include <algorithm>
#include <iterator>

namespace featurehost::lint {

namespace {

struct Row {
  const char* id;
  Kind kind;
  Severity severity;
};

constexpr auto kError = Severity::kError;
constexpr auto kWarning = Severity::kWarning;

constexpr Row kRows[] = {
    {"list-missing", Kind::kListMissing, kError},
    {"list-empty", Kind::kListEmpty, kWarning},
    {"item-without-weight", Kind::kItemWithoutWeight, kError},
    {"weight-without-item", Kind::kWeightWithoutItem, kWarning},
    {"item-empty", Kind::kItemEmpty, kError},
    {"item-doubled", Kind::kItemDoubled, kWarning},
    {"item-blanks", Kind::kItemBlanks, kWarning},
    {"check-without-name", Kind::kCheckWithoutName, kError},
    {"check-without-image", Kind::kCheckWithoutImage, kWarning},
    {"too-many-items", Kind::kTooManyItems, kError},
    {"weight-not-a-number", Kind::kWeightNotANumber, kWarning},
    {"weight-negative", Kind::kWeightNegative, kWarning},
    {"weights-sum", Kind::kWeightsSum, kWarning},
    {"property-missing", Kind::kPropertyMissing, kError},
    {"property-empty", Kind::kPropertyEmpty, kError},
    {"property-unknown", Kind::kPropertyUnknown, kWarning},
    {"altsource", Kind::kAltSource, kWarning},
    {"number-unparsable", Kind::kNumberUnparsable, kError},
    {"number-negative", Kind::kNumberNegative, kError},
    {"number-too-large", Kind::kNumberTooLarge, kError},
    {"size-zero", Kind::kSizeZero, kError},
    {"size-blocks-host", Kind::kSizeBlocksHost, kWarning},
    {"image-size-zero", Kind::kImageSizeZero, kWarning},
    {"image-over-4-gib", Kind::kImageOver4Gib, kWarning},
    {"check-size-zero", Kind::kCheckSizeZero, kError},
    {"check-size-too-large", Kind::kCheckSizeTooLarge, kError},
    {"targetsize-differs", Kind::kTargetSizeDiffers, kWarning},
    {"blocksize-bare", Kind::kBlockSizeBare, kWarning},
    {"blocksize-mixed", Kind::kBlockSizeMixed, kWarning},
    {"blocksize-refused", Kind::kBlockSizeRefused, kError},
    {"blocksize-wraps", Kind::kBlockSizeWraps, kWarning},
    {"blocksize-short-reads", Kind::kBlockSizeShortReads, kWarning},
    {"path-shell", Kind::kPathShell, kError},
    {"path-option", Kind::kPathOption, kError},
    {"path-relative", Kind::kPathRelative, kWarning},
    {"target-filename", Kind::kTargetFileName, kError},
    {"command-too-long", Kind::kCommandTooLong, kError},
    {"source-missing", Kind::kSourceMissing, kError},
    {"source-unusable", Kind::kSourceUnusable, kError},
    {"range-beyond-source", Kind::kRangeBeyondSource, kError},
    {"gzip-bad", Kind::kGzipBad, kError},
    {"gzip-damaged", Kind::kGzipDamaged, kError},
    {"gzip-trailing-bytes", Kind::kGzipTrailingBytes, kError},
    {"archive-too-large", Kind::kArchiveTooLarge, kError},
    {"archive-multi-member", Kind::kArchiveMultiMember, kError},
    {"archive-trailer", Kind::kArchiveTrailer, kError},
    {"tar-damaged", Kind::kTarDamaged, kError},
    {"checksum-differs", Kind::kChecksumDiffers, kError},
    {"mountpoint-missing", Kind::kMountPointMissing, kError},
    {"mountpoint-in-use", Kind::kMountPointInUse, kWarning},
    {"target-missing", Kind::kTargetMissing, kError},
    {"partition-from-image", Kind::kPartitionFromImage, kWarning},
    {"target-not-a-device", Kind::kTargetNotADevice, kWarning},
    {"target-unusable", Kind::kTargetUnusable, kError},
    {"target-mounted", Kind::kTargetMounted, kError},
    {"target-also-mounted", Kind::kTargetAlsoMounted, kWarning},
    {"target-too-small", Kind::kTargetTooSmall, kError},
    {"archive-larger-than-target", Kind::kArchiveLargerThanTarget, kWarning},
    {"eol-folder-left", Kind::kEolFolderLeft, kError},
    {"card-missing", Kind::kCardMissing, kError},
    {"tool-missing", Kind::kToolMissing, kError},
    {"tool-not-executable", Kind::kToolNotExecutable, kError},
    {"zcat-accepts-damage", Kind::kZcatAcceptsDamage, kWarning},
    {"killed-run", Kind::kKilledRun, kError},
    {"runs-unknown", Kind::kRunsUnknown, kWarning},
    {"other-install", Kind::kOtherInstall, kError},
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
