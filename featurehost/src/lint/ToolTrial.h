#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace featurehost::lint {

/**
 * Run a program to see how it behaves: without input, its output dropped.
 *
 * @param program    a path, or a name on the search path.
 * @param arguments  without the program's own name.
 * @param limit      when it takes longer it is killed, with its children.
 * @return its exit code; nothing when it could not be run, or was killed.
 */
std::optional<int> TryTool(const std::string& program, const std::vector<std::string>& arguments,
                           std::chrono::milliseconds limit = std::chrono::seconds{10});

/** Whether a decompressor ends with 0 for a small file whose checksum is wrong. */
std::optional<bool> TryDamagedFile(const std::string& decompressor);

}  // namespace featurehost::lint
