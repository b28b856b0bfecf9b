#pragma once

#include <string>

namespace featurehost {

/** The content of a file; empty when it cannot be read. */
std::string ReadText(const std::string& path);

/** Whether there is anything of that name, also a link to nowhere. */
bool Exists(const std::string& path);

/** The path without links, dots and a slash at its end, as far as it exists. */
std::string Canonical(const std::string& path);

}  // namespace featurehost
