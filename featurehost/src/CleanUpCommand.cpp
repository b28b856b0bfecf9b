#include "featurehost/src/CleanUpCommand.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "featurehost/src/JsonLine.h"
#include "featurehost/src/KilledRuns.h"
#include "featurehost/src/LeftOver.h"
#include "featurehost/src/RunFolder.h"
#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

/** What is found and done, on standard output; counts what is still there. */
class Story {
 public:
  explicit Story(const CleanUpRequest& request) : request_(request) {}

  void Running(const RunNote& note) const {
    const pid_t process = RunningProcess(note).value_or(0);
    if (request_.json) {
      std::cout << JsonLine(
          {{"event", "running"}, {"feature", note.feature}, {"process", process}});
    } else if (!request_.quiet) {
      std::cout << "process " << process << " is installing feature '" << OneLine(note.feature)
                << "'; left alone\n";
    }
  }

  /** @param feature  whose install has left it; none when that cannot be told. */
  void Found(const std::optional<std::string>& feature, const std::vector<LeftOver>& leftOvers) {
    if (leftOvers.empty()) {
      return;
    }
    found_ = true;
    left_ += std::count_if(leftOvers.begin(), leftOvers.end(),
                           [](const LeftOver& leftOver) { return !leftOver.cleaned; });
    if (request_.json) {
      nlohmann::ordered_json object = {{"event", "cleanup"}};
      if (feature.has_value()) {
        object["feature"] = *feature;
      }
      object["items"] = JsonArray(leftOvers);
      std::cout << JsonLine(object);
    } else if (!request_.quiet) {
      PrintLines(feature, leftOvers);
    }
    std::cout.flush();
  }

  /** @param unjudged  installs of which it cannot be told whether there is something to be found.
   */
  ExitCode End(std::size_t unjudged) const {
    if (unjudged > 0) {
      SayUnjudged(unjudged);
    }
    if (left_ > 0) {
      std::cerr << "featurehost: " << left_ << (left_ == 1 ? " thing is" : " things are")
                << (request_.dryRun ? " to be cleaned up" : " still there") << std::endl;
    }
    if (left_ > 0 || unjudged > 0) {
      return ExitCode::kNotCleaned;
    }
    if (!found_ && !request_.json && !request_.quiet) {
      std::cout << "nothing to clean up" << std::endl;
    }
    return ExitCode::kSuccess;
  }

 private:
  static void PrintLines(const std::optional<std::string>& feature,
                         const std::vector<LeftOver>& leftOvers) {
    if (feature.has_value()) {
      std::cout << "left by a killed install of feature '" << OneLine(*feature) << "':\n";
    }
    for (const LeftOver& leftOver : leftOvers) {
      std::cout << Describe(leftOver) << ": " << leftOver.done << "\n";
    }
  }

  const CleanUpRequest& request_;
  bool found_ = false;
  std::ptrdiff_t left_ = 0;
};

std::vector<LeftOver> OnlyLook(const RunNote& note) {
  auto leftOvers = LeftOf(note);
  for (LeftOver& leftOver : leftOvers) {
    leftOver.done = "to be cleaned up";
  }
  return leftOvers;
}

LeftOver NoteOutcome(const std::string& path, const std::string& done, int error) {
  return {LeftOver::Kind::kNote, OneLine(path), error == 0,
          error == 0 ? done : "cannot be removed: " + ErrorText(error)};
}

std::vector<LeftOver> CleanUpFor(const RunFolder& folder, const RunNote& note) {
  auto leftOvers = CleanUp(note);
  const bool isClean = std::all_of(leftOvers.begin(), leftOvers.end(),
                                   [](const LeftOver& leftOver) { return leftOver.cleaned; });
  const int error = isClean ? Drop(folder, note) : 0;
  if (error != 0) {
    leftOvers.push_back(NoteOutcome(folder.Path() + "/" + note.id, "", error));
  }
  return leftOvers;
}

std::vector<LeftOver> RemoveRubbish(const RunFolder& folder, bool dryRun) {
  std::vector<LeftOver> leftOvers;
  for (const std::string& path : folder.Rubbish()) {
    if (dryRun) {
      leftOvers.push_back({LeftOver::Kind::kNote, OneLine(path), false, "damaged; to be removed"});
    } else {
      const int error = unlink(path.c_str()) == 0 ? 0 : errno;
      leftOvers.push_back(NoteOutcome(path, "damaged; removed", error));
    }
  }
  return leftOvers;
}

}  // namespace

ExitCode CleanUpKilledRuns(const CleanUpRequest& request) {
  Story story(request);
  for (const RunFolder& folder : RunFolder::ForReading()) {
    const RunFolder::Lock lock(folder);
    for (const RunNote& note : folder.Notes()) {
      if (RunningProcess(note).has_value()) {
        story.Running(note);
      } else if (IsKilled(note)) {
        story.Found(note.feature, request.dryRun ? OnlyLook(note) : CleanUpFor(folder, note));
      }
    }
    story.Found(std::nullopt, RemoveRubbish(folder, request.dryRun));
  }
  return story.End(UnjudgedRuns());
}

}  // namespace featurehost
