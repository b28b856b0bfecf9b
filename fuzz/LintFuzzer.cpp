// Configurations as `featurehost lint` sees them, on a unit that the input invents.

#include <fuzzer/FuzzedDataProvider.h>

#include "featurehost/src/lint/LintReport.h"
#include "featurehost/src/lint/Linter.h"
#include "fuzz/support/Require.h"

namespace {

using namespace featurehost::lint;
using featurehost::Properties;

std::string AnyText(FuzzedDataProvider& input) {
  const char* const texts[] = {"/dev/mmcblk1p1", "/media/a.gz", "4k", "100", "LABEL=a", "", "/",
                               "/dev/mmcblk1"};
  return input.ConsumeBool() ? input.PickValueInArray(texts) : input.ConsumeRandomLengthString(64);
}

/** A unit where every question is answered by the input. */
class AnyEnvironment : public Environment {
 public:
  explicit AnyEnvironment(FuzzedDataProvider& input) : input_(input) {}

  FileFacts Look(const std::string& /*path*/) const override {
    return {static_cast<FileFacts::Type>(input_.ConsumeIntegralInRange<int>(0, 4)),
            input_.ConsumeIntegral<std::uint64_t>(), input_.ConsumeBool()};
  }
  std::string Canonical(const std::string& path) const override { return path; }
  std::optional<GzipEnds> Ends(const std::string& /*path*/) const override {
    if (input_.ConsumeBool()) {
      return std::nullopt;
    }
    return GzipEnds{input_.ConsumeBool(), input_.ConsumeBool(),
                    input_.ConsumeIntegral<std::uint32_t>()};
  }
  std::vector<std::string> MountPointsOf(const std::string& /*device*/) const override {
    return Texts();
  }
  std::string MountPointAt(const std::string& /*folder*/) const override { return AnyText(input_); }
  ToolState Tool(const std::string& /*name*/) const override {
    return static_cast<ToolState>(input_.ConsumeIntegralInRange<int>(0, 2));
  }
  std::optional<bool> AcceptsDamage(const std::string& /*decompressor*/) const override {
    return Perhaps();
  }
  std::optional<bool> TakesBlockSize(const std::string& /*text*/) const override {
    return Perhaps();
  }
  OtherRuns RunsBeside(const featurehost::RunScope& /*scope*/) const override {
    return {Texts(), Texts()};
  }

 private:
  std::optional<bool> Perhaps() const {
    return input_.ConsumeBool() ? std::nullopt : std::optional(input_.ConsumeBool());
  }
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts(input_.ConsumeIntegralInRange<std::size_t>(0, 2));
    for (auto& text : texts) {
      text = AnyText(input_);
    }
    return texts;
  }

  FuzzedDataProvider& input_;
};

Properties::Values AnyProperties(FuzzedDataProvider& input) {
  Properties::Values values;
  values["updatelist"] =
      input.ConsumeBool() ? "userfs;rootfs;checkrootfs;factorydata;eolsettings" : AnyText(input);
  values["updateprogresslist"] = input.ConsumeBool() ? "10;20;30;20;20" : AnyText(input);
  for (const char* item : {"userfs", "rootfs", "factorydata", "eolsettings"}) {
    for (const char* suffix :
         {"source", "target", "targetsize", "blocksize", "checksum", "altsource", "mountpoint",
          "filesystem", "targetfilename", "offset", "size", "version"}) {
      if (input.ConsumeBool()) {
        values[std::string(item) + suffix] = AnyText(input);
      }
    }
  }
  for (int more = input.ConsumeIntegralInRange<int>(0, 3); more > 0; --more) {
    const std::string key = AnyText(input);
    values[key] = AnyText(input);
  }
  return values;
}

void CheckFinding(const Finding& finding) {
  const std::string text = TextOf(finding);
  fuzz::Require(!finding.why.empty() && !text.empty(), "a finding that tells nothing");
  fuzz::Require(text.find('\n') == std::string::npos, "more than a line: " + text);
  const std::string json = JsonOf(finding);
  fuzz::Require(json.find('\n') >= json.size() - 1, "more than a line: " + json);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string featureId = input.ConsumeRandomLengthString(70);
  const auto values = AnyProperties(input);
  const AnyEnvironment unit(input);
  for (const auto& finding : Lint(featureId, values, unit)) {
    CheckFinding(finding);
  }
  return 0;
}
