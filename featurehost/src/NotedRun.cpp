#include "featurehost/src/NotedRun.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

#include "featurehost/src/HostError.h"
#include "featurehost/src/KilledRuns.h"
#include "featurehost/src/Log.h"
#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

void Warn(const std::string& function, const std::string& message) {
  Log::Instance().Host(Level::kWarning, function, message);
}

std::optional<RunFolder> FolderForNotes() {
  try {
    return RunFolder::ForWriting();
  } catch (const HostError& error) {
    Warn("FolderForNotes",
         std::string("no place to note this run down, in case it is killed: ") + error.what());
    return std::nullopt;
  }
}

}  // namespace

namespace {

/** Whether nothing more is to be done about it by this program. */
bool IsSettled(const LeftOver& leftOver) {
  return leftOver.cleaned || leftOver.foreign;
}

}  // namespace

NotedRun::NotedRun(RunNote note) : folder_(FolderForNotes()), note_(std::move(note)) {
  // Of two that begin at the same time, the second finds the first one's note.
  std::optional<RunFolder::Lock> lock;
  if (folder_.has_value()) {
    lock.emplace(*folder_);
  }
  RefuseBesideRunningInstall(note_.scope);
  Write();
}

NotedRun::~NotedRun() {
  if (!settled_) {
    Remove();
  }
}

void NotedRun::AddWorker() {
  note_.processes.push_back(NameOf(getpid()));
  MarkChildren(note_);
  std::optional<RunFolder::Lock> lock;
  if (folder_.has_value()) {
    lock.emplace(*folder_);
  }
  Write();
}

void NotedRun::Settle(const std::vector<LeftOver>& leftOvers) {
  settled_ = true;
  if (std::all_of(leftOvers.begin(), leftOvers.end(), IsSettled)) {
    Remove();
  }
}

void NotedRun::Remove() const {
  const int error = folder_.has_value() ? folder_->Remove(note_) : 0;
  if (error != 0) {
    Warn("Remove",
         "cannot remove the note of this run in " + folder_->Path() + ": " + ErrorText(error));
  }
}

void NotedRun::Write() const {
  const int error = folder_.has_value() ? folder_->Write(note_) : 0;
  if (error != 0) {
    Warn("Write", "cannot note this run down in " + folder_->Path() +
                      ", in case it is killed: " + ErrorText(error));
  }
}

}  // namespace featurehost
