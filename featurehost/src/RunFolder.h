#pragma once

#include <string>
#include <vector>

#include "featurehost/src/RunNote.h"

namespace featurehost {

/**
 * A folder with the notes of runs. It belongs to this user, or to nobody but root, so that nobody
 * else can have a run's things cleaned.
 */
class RunFolder {
 public:
  /**
   * Where this user's runs are noted: $FEATUREHOST_RUN_DIR, or else the first that can be used of
   * /run/featurehost, $XDG_RUNTIME_DIR/featurehost and /tmp/featurehost-UID; made if need be.
   * Throws HostError when none can be.
   */
  static RunFolder ForWriting();

  /** All of those that are there and can be read. */
  static std::vector<RunFolder> ForReading();

  /** Keeps others from writing or cleaning as long as it lives; waits for them. */
  class Lock {
   public:
    explicit Lock(const RunFolder& folder);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    int descriptor_;
  };

  /** Every note that can be understood. */
  std::vector<RunNote> Notes() const;
  /** Paths of files that are no notes: damaged, or cut short while they were being written. */
  std::vector<std::string> Rubbish() const;

  /** Write or replace a note: all of it or nothing. @return 0, or an errno value. */
  int Write(const RunNote& note) const;
  /** @return 0 when there is no such note any more, or an errno value. */
  int Remove(const RunNote& note) const;

  const std::string& Path() const { return path_; }

 private:
  explicit RunFolder(std::string path) : path_(std::move(path)) {}

  std::string FileOf(const RunNote& note) const;

  std::string path_;
};

}  // namespace featurehost
