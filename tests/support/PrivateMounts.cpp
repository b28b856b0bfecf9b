#include "tests/support/PrivateMounts.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace support {

namespace {

bool WriteOnce(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  return file.good();
}

std::string UnshareMounts() {
  if (unshare(CLONE_NEWNS) != 0) {
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      return std::string("no mount namespace of our own: ") + std::strerror(errno);
    }
    if (!WriteOnce("/proc/self/setgroups", "deny") ||
        !WriteOnce("/proc/self/uid_map", "0 " + user + " 1") ||
        !WriteOnce("/proc/self/gid_map", "0 " + group + " 1")) {
      return "no user namespace of our own";
    }
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return std::string("mounts cannot be made private: ") + std::strerror(errno);
  }
  return "";
}

}  // namespace

std::string EnterPrivateMounts() {
  static const std::string result = UnshareMounts();
  return result;
}

CoveredTool::CoveredTool(const std::string& path, const std::string& body)
    : target_(std::filesystem::canonical(path)) {
  const std::string script = directory_ / "tool";
  WriteFile(script, body.empty() ? "" : "#!/bin/sh\n" + body + "\n");
  chmod(script.c_str(), body.empty() ? 0644 : 0755);
  Cover(script);
}

CoveredTool::CoveredTool(const std::string& path, const std::string& program, ProgramTag /*unused*/)
    : target_(std::filesystem::canonical(path)) {
  Cover(program);
}

void CoveredTool::Cover(const std::string& program) {
  EXPECT_EQ(0, mount(program.c_str(), target_.c_str(), nullptr, MS_BIND, nullptr))
      << "cannot cover " << target_ << ": " << std::strerror(errno);
}

CoveredTool::~CoveredTool() {
  EXPECT_EQ(0, umount2(target_.c_str(), MNT_DETACH)) << "cannot uncover " << target_;
}

}  // namespace support
