#include <cstdio>
#include <gmock/gmock.h>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tests/blackbox/LoadedModule.h"

namespace {

using testing::ElementsAre;

/** What a command prints; its last line must be "done", which says that it succeeded. */
std::string Output(const std::string& command) {
  FILE* stream = popen((command + " && echo done").c_str(), "r");
  std::string output;
  char buffer[4096];
  for (std::size_t count = 0; (count = fread(buffer, 1, sizeof buffer, stream)) > 0;) {
    output.append(buffer, count);
  }
  pclose(stream);
  const std::string end = "done\n";
  if (output.length() < end.length() ||
      output.compare(output.length() - end.length(), end.length(), end) != 0) {
    ADD_FAILURE() << command << " failed";
    return "";
  }
  return output.substr(0, output.length() - end.length());
}

TEST(ModuleFileTest, ExportsItsTwoEntriesAndNothingElse) {
  std::istringstream lines(Output("nm -D --defined-only " MODULE_FILE));
  std::multiset<std::string> names;
  for (std::string address, kind, name; lines >> address >> kind >> name;) {
    EXPECT_EQ("T", kind) << name;
    names.insert(name);
  }

  EXPECT_THAT(names, ElementsAre("FeatureCreate2", "FeatureType"));
}

TEST(ModuleFileTest, NeedsNothingButTheLanguagesRuntime) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a module that is built with the sanitizers needs their libraries";
#endif
  const std::string output = Output("readelf --dynamic --wide " MODULE_FILE);
  const std::regex needed(R"(\(NEEDED\)[^\[]*\[([^\]]+)\])");
  const std::regex runtime(R"((libstdc\+\+|libm|libgcc_s|libc|ld-linux[-\w]*)\.so\.\d+)");
  std::size_t libraries = 0;
  for (std::sregex_iterator match(output.begin(), output.end(), needed), end; match != end;
       ++match) {
    ++libraries;
    EXPECT_TRUE(std::regex_match((*match)[1].str(), runtime)) << (*match)[1];
  }
  EXPECT_GE(libraries, 2U) << output;
}

TEST(ModuleFileTest, StartsNoThread) {
  const std::string needed = Output("nm -D --undefined-only " MODULE_FILE);
  EXPECT_THAT(needed, testing::HasSubstr("fork"));
  EXPECT_THAT(needed, testing::Not(testing::HasSubstr("pthread_create")));
  EXPECT_THAT(needed, testing::Not(testing::HasSubstr("_M_start_thread")));
}

TEST(ModuleFileTest, TellsItsVersion) {
  EXPECT_THAT(Output("readelf --notes " MODULE_FILE),
              testing::HasSubstr(R"("name":"maincpuloader","version":")" MODULE_VERSION R"(")"));
}

TEST(ModuleFileTest, HasEverythingElseFromItsHost) {
  // Every name that the loader must find when the module is opened is there.
  const blackbox::LoadedModule module;
  EXPECT_NE(nullptr, module.Symbol("FeatureCreate2"));
  EXPECT_NE(nullptr, module.Symbol("FeatureType"));
}

}  // namespace
