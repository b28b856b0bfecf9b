#include "featurehost/src/RunNote.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <random>
#include <unistd.h>

#include "featurehost/src/Paths.h"

namespace featurehost {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kVariable = "FEATUREHOST_RUN";
constexpr const char* kHexDigits = "0123456789abcdef";

std::string RandomId() {
  constexpr int kDigits = 32;
  constexpr unsigned kSixteen = 16;
  std::random_device random;
  std::string id;
  for (int digit = 0; digit < kDigits; ++digit) {
    id += kHexDigits[random() % kSixteen];
  }
  return id;
}

bool IsId(const std::string& text) {
  return !text.empty() && text.find_first_not_of(kHexDigits) == std::string::npos;
}

std::string BootId() {
  const std::string text = ReadText("/proc/sys/kernel/random/boot_id");
  return text.substr(0, text.find('\n'));
}

std::string Link(const char* path) {
  std::array<char, 64> target{};
  const ssize_t length = readlink(path, target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

/** Numbers of namespaces are soon used again; the start of their first process is not. */
std::string WithStart(const std::string& space) {
  return space + " " + std::to_string(NameOf(1).start);
}

std::string ProcessSpace() {
  return WithStart(Link("/proc/self/ns/pid"));
}

std::string MountSpace() {
  return WithStart(Link("/proc/self/ns/mnt"));
}

Json ProcessesOf(const RunNote& note) {
  Json processes = Json::array();
  for (const ProcessName& process : note.processes) {
    processes.push_back({{"pid", process.id}, {"start", process.start}});
  }
  return processes;
}

RunNote FromJson(const Json& object) {
  RunNote note;
  object.at("id").get_to(note.id);
  object.at("boot").get_to(note.boot);
  object.at("process_space").get_to(note.processSpace);
  object.at("mount_space").get_to(note.mountSpace);
  for (const Json& process : object.at("processes")) {
    note.processes.push_back(
        {process.at("pid").get<pid_t>(), process.at("start").get<unsigned long long>()});
  }
  object.at("feature").get_to(note.feature);
  object.at("configuration").get_to(note.configuration);
  object.at("mount_points").get_to(note.scope.mountPoints);
  object.at("folder").get_to(note.scope.folder);
  object.at("targets").get_to(note.scope.targets);
  object.at("mounts_before").get_to(note.before.mounts);
  object.at("loop_devices_before").get_to(note.before.loopDevices);
  object.at("folder_before").get_to(note.before.folder);
  return note;
}

}  // namespace

RunNote NewNote(const std::string& feature, const std::string& configuration, const RunScope& scope,
                const UnitStock& before) {
  return {RandomId(), BootId(),      ProcessSpace(), MountSpace(), {NameOf(getpid())},
          feature,    configuration, scope,          before};
}

std::string EnvironmentEntry(const RunNote& note) {
  return std::string(kVariable) + "=" + note.id;
}

void MarkChildren(const RunNote& note) {
  setenv(kVariable, note.id.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): there is one thread
}

bool HasOwnProc() {
  return Link("/proc/self") == std::to_string(getpid()) && !BootId().empty();
}

bool IsOfEarlierBoot(const RunNote& note) {
  return HasOwnProc() && note.boot != BootId();
}

bool SeesProcessesOf(const RunNote& note) {
  return HasOwnProc() && !IsOfEarlierBoot(note) && note.processSpace == ProcessSpace();
}

bool SeesMountsOf(const RunNote& note) {
  return HasOwnProc() && !IsOfEarlierBoot(note) && note.mountSpace == MountSpace();
}

std::optional<pid_t> RunningProcess(const RunNote& note) {
  if (!SeesProcessesOf(note)) {
    return std::nullopt;
  }
  const auto process = std::find_if(note.processes.begin(), note.processes.end(), IsAlive);
  return process == note.processes.end() ? std::nullopt : std::optional<pid_t>(process->id);
}

std::string ToText(const RunNote& note) {
  const Json object = {{"id", note.id},
                       {"boot", note.boot},
                       {"process_space", note.processSpace},
                       {"mount_space", note.mountSpace},
                       {"processes", ProcessesOf(note)},
                       {"feature", note.feature},
                       {"configuration", note.configuration},
                       {"mount_points", note.scope.mountPoints},
                       {"folder", note.scope.folder},
                       {"targets", note.scope.targets},
                       {"mounts_before", note.before.mounts},
                       {"loop_devices_before", note.before.loopDevices},
                       {"folder_before", note.before.folder}};
  return object.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::optional<RunNote> ParseNote(const std::string& text) {
  try {
    RunNote note = FromJson(Json::parse(text));
    const bool isComplete = IsId(note.id) && !note.processes.empty();
    return isComplete ? std::optional<RunNote>(std::move(note)) : std::nullopt;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

}  // namespace featurehost
