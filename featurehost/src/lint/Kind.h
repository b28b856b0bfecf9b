#pragma once

#include <vector>

namespace featurehost::lint {

/**
 * An error: the install will fail, hang, write a wrong result or write to a wrong place. A warning:
 * the progress misleads, or something is suspicious or for development only.
 */
enum class Severity { kError, kWarning };

/** What a finding is about. Names and severities are in one table; docs/lint.md explains each. */
enum class Kind {
  kListMissing,
  kListEmpty,
  kItemWithoutWeight,
  kWeightWithoutItem,
  kItemEmpty,
  kItemDoubled,
  kItemBlanks,
  kCheckWithoutName,
  kCheckWithoutImage,
  kTooManyItems,
  kWeightNotANumber,
  kWeightNegative,
  kWeightsSum,
  kPropertyMissing,
  kPropertyEmpty,
  kPropertyUnknown,
  kAltSource,
  kNumberUnparsable,
  kNumberNegative,
  kNumberTooLarge,
  kSizeZero,
  kSizeBlocksHost,
  kImageSizeZero,
  kImageOver4Gib,
  kCheckSizeZero,
  kCheckSizeTooLarge,
  kTargetSizeDiffers,
  kBlockSizeBare,
  kBlockSizeMixed,
  kBlockSizeRefused,
  kBlockSizeWraps,
  kBlockSizeShortReads,
  kPathShell,
  kPathOption,
  kPathRelative,
  kTargetFileName,
  kCommandTooLong,
  kSourceMissing,
  kSourceUnusable,
  kRangeBeyondSource,
  kGzipBad,
  kGzipDamaged,
  kGzipTrailingBytes,
  kArchiveTooLarge,
  kArchiveMultiMember,
  kArchiveTrailer,
  kTarDamaged,
  kChecksumDiffers,
  kMountPointMissing,
  kMountPointInUse,
  kTargetMissing,
  kPartitionFromImage,
  kTargetNotADevice,
  kTargetUnusable,
  kTargetMounted,
  kTargetAlsoMounted,
  kTargetTooSmall,
  kArchiveLargerThanTarget,
  kEolFolderLeft,
  kCardMissing,
  kToolMissing,
  kToolNotExecutable,
  kZcatAcceptsDamage,
  kKilledRun,
  kRunsUnknown,
  kOtherInstall,
};

/** The stable id, such as "weights-sum". */
const char* IdOf(Kind kind);
Severity SeverityOf(Kind kind);
/** "error" or "warning". */
const char* NameOf(Severity severity);
/** Every kind there is. */
std::vector<Kind> AllKinds();

}  // namespace featurehost::lint
