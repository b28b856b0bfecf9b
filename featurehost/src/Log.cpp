#include "featurehost/src/Log.h"

#include <array>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <unistd.h>
#include <utility>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/WriteAll.h"
#include "host/Logging.h"

namespace featurehost {

namespace {

struct Category {
  const char* id;
  const char* shown;
  std::optional<Level> level;  // none: shown at every level
};

constexpr std::array<Category, 5> kCategories = {{
    {logging::categories::Error, "error", Level::kError},
    {logging::categories::Warning, "warning", Level::kWarning},
    {logging::categories::Info, "info", Level::kInfo},
    {logging::categories::Interface, "interface", Level::kInterface},
    {logging::categories::Always, "always", std::nullopt},
}};

// A category that the contract does not know is taken as information.
const Category& Find(const std::string& id) {
  for (const Category& category : kCategories) {
    if (id == category.id) {
      return category;
    }
  }
  return kCategories[2];
}

bool Includes(Level shown, const Category& category) {
  return !category.level.has_value() || *category.level <= shown;
}

/** A sink on a descriptor, which is not its own and may change. What cannot be written is lost. */
class DescriptorSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  void SetDescriptor(int descriptor) { descriptor_ = descriptor; }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    WriteAll(descriptor_, {line.data(), line.size()});
  }
  void flush_() override {}

 private:
  int descriptor_ = STDERR_FILENO;
};

std::shared_ptr<spdlog::logger> NewLogger(const std::shared_ptr<spdlog::sinks::sink>& sink) {
  auto logger = std::make_shared<spdlog::logger>("featurehost", sink);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  // A log that cannot be written (a full disk) must not end an update.
  logger->set_error_handler([](const std::string& /*message*/) {});
  return logger;
}

std::string ShortName(const std::string& module) {
  const auto colon = module.rfind(':');
  return colon == std::string::npos ? module : module.substr(colon + 1);
}

std::string WithoutLineEnd(std::string message) {
  while (!message.empty() && message.back() == '\n') {
    message.pop_back();
  }
  return message;
}

}  // namespace

struct Log::Sinks {
  std::shared_ptr<DescriptorSink> descriptor = std::make_shared<DescriptorSink>();
  std::shared_ptr<spdlog::logger> standardError = NewLogger(descriptor);
  std::shared_ptr<spdlog::logger> file;
};

std::optional<Level> LevelOf(const std::string& name) {
  for (const Category& category : kCategories) {
    if (name == category.shown) {
      return category.level;
    }
  }
  return std::nullopt;
}

Log& Log::Instance() {
  static Log log;
  return log;
}

Log::Log() : sinks_(std::make_unique<Sinks>()) {}

Log::~Log() = default;

void Log::SetLevel(Level level) {
  level_ = level;
}

void Log::OpenFile(const std::string& path) {
  try {
    sinks_->file = NewLogger(std::make_shared<spdlog::sinks::basic_file_sink_st>(path));
  } catch (const spdlog::spdlog_ex& error) {
    throw HostError(ExitCode::kUsage, "--log-file: " + OneLine(error.what()));
  }
}

void Log::CloseFile() {
  sinks_->file.reset();
}

void Log::SetStandardError(int descriptor) {
  sinks_->descriptor->SetDescriptor(descriptor);
}

void Log::SetAround(std::function<void()> before, std::function<void()> after) {
  before_ = std::move(before);
  after_ = std::move(after);
}

bool Log::IsEnabled(const std::string& category) const {
  return ShownOnStandardError(category) || ShownInFile(category);
}

void Log::Write(const std::string& category, const std::string& module, const std::string& function,
                const std::string& source, TUint32 line, const std::string& message) {
  Print(category, std::string(Find(category).shown) + " " + ShortName(module) + " " + function +
                      " " + source + ":" + std::to_string(line) + " " +
                      OneLine(WithoutLineEnd(message)));
}

void Log::Host(Level level, const std::string& function, const std::string& message) {
  for (const Category& category : kCategories) {
    if (category.level == level && IsEnabled(category.id)) {
      Print(category.id,
            std::string(category.shown) + " featurehost " + function + " " + OneLine(message));
    }
  }
}

bool Log::ShownOnStandardError(const std::string& category) const {
  return quiet_ ? Find(category).level == Level::kError : Includes(level_, Find(category));
}

bool Log::ShownInFile(const std::string& category) const {
  return sinks_->file != nullptr && Includes(level_, Find(category));
}

void Log::Print(const std::string& category, const std::string& text) {
  const auto now = spdlog::log_clock::now();  // the same on both
  const auto write = [&](const std::shared_ptr<spdlog::logger>& logger) {
    logger->log(now, spdlog::source_loc{}, spdlog::level::info, spdlog::string_view_t(text));
  };
  if (ShownOnStandardError(category)) {
    if (before_) {
      before_();
    }
    write(sinks_->standardError);
    if (after_) {
      after_();
    }
  }
  if (ShownInFile(category)) {
    write(sinks_->file);
  }
}

}  // namespace featurehost
