// A whole host, with libev: runs one update with the module that it is given; the properties are in
// the environment. The numbers in the comments are the points of the integration guide.
#include <dlfcn.h>
#include <ev++.h>
#include <filesystem>
#include <iostream>
#include <list>
#include <sys/stat.h>
#include <thread>

#include "host/FeatureModule.h"
#include "host/FileSystemUtils.h"
#include "host/Logging.h"
#include "host/Platform.h"

namespace {
namespace fs = std::filesystem;
std::error_code ignored;
const pid_t hostProcess = getpid();
void EndClone() {  // 8: a copy of this process whose exec failed must not go on as a second host
  if (getpid() != hostProcess) _exit(127);
}

struct Subscription {
  Subscription(const TEvent& filter, IEventObserver* of, ev::loop_ref loop)
      : record(&filter), observer(of), timer(loop), file(loop) {}
  void Due() { observer->OnEvent({record->iType, record->iCode, 0, nullptr}), EndClone(); }
  const TEvent* record;  // the subscriber's; null when it has unsubscribed
  IEventObserver* observer;
  ev::timer timer;
  ev::io file;
};

struct Host : IEventBroker, IFeatureProperties, IInterfaceBroker {
  void Subscribe(const TEvent& filter, IEventObserver* observer) override {
    Subscription& made = subscriptions.emplace_back(filter, observer, loop);
    made.timer.set<Subscription, &Subscription::Due>(&made);
    made.file.set<Subscription, &Subscription::Due>(&made);
    const double period = std::max(filter.iSize, 1U) / 1000.0;
    ev_now_update(loop);  // 5: libev's clock has stood still while the module blocked
    if (filter.iType == EEventTimer) made.timer.start(period, filter.iData ? period : 0);
    if (filter.iType == EEventDescriptor) made.file.start(static_cast<int>(filter.iCode), ev::READ);
  }
  void Unsubscribe(const TEvent& filter, IEventObserver* observer) override {
    for (Subscription& one : subscriptions)  // 3: one that is being delivered must not go away
      if (one.record == &filter && one.observer == observer)
        one.timer.stop(), one.file.stop(), one.record = nullptr;
  }
  void PostEvent(const TEvent& event) override {
    EndClone();
    const auto* payload = static_cast<const char*>(event.iData);
    queue.emplace_back(event, std::string(payload, payload + event.iSize));  // 1 and 2
  }
  TBool GetProperty(const TFeatureId&, const std::string& key, std::string& value) const override {
    const char* text = std::getenv(key.c_str());
    return text != nullptr ? (value = text, ETrue) : EFalse;
  }
  void UpdateControl(TUint32 code, const std::string& payload) {
    const bool good = payload.size() == 68 && payload.find_first_not_of('\0', 64) != payload.npos;
    if (code == EUserEventFeatureCreated) PostEvent({EEventUser, 201, 7, "maincpu"});
    if (code == EUserEventPrepareResult && good) PostEvent({EEventUser, 203, 7, "maincpu"});
    if (code == EUserEventInstallProgress) std::cout << +TUint8(payload[64]) << " %" << std::endl;
    if (code == EUserEventInstallResult || (code == EUserEventPrepareResult && !good))
      result = good;
  }
  bool Run() {
    while (result == -1) {  // 9: the first result ends it
      loop.run(queue.empty() ? ev::ONCE : ev::NOWAIT);
      if (queue.empty()) continue;
      auto [event, payload] = queue.front();
      queue.pop_front();
      event.iData = payload.data();
      UpdateControl(event.iCode, payload);
      for (Subscription& one : subscriptions)
        if (one.record && one.record->iType == event.iType && one.record->iCode == event.iCode)
          one.observer->OnEvent(event), EndClone();
    }
    return result != 0;
  }
  ev::dynamic_loop loop;  // 7: libev's default loop would take the module's children
  std::list<Subscription> subscriptions;
  std::list<std::pair<TEvent, std::string>> queue;
  int result = -1;  // none yet
};
int Result(int result) { return result == 0 ? 0 : errno; }
}  // namespace

// What the module finds in the host by name.
using Line = logging::internals::CLogHandle;
class logging::internals::CLog : public logging::CControl {
  TBool IsEnabled(const char*, const char*) const override { return ETrue; }
} hostLog;
struct Line::CLine : std::pair<bool, std::string> {};
logging::CControl& logging::IControl() { return hostLog; }
logging::internals::CLog& logging::internals::ILog() { return EndClone(), hostLog; }
Line::CLogHandle(logging::internals::CLog&, TBool, const char* category, const char*,
                 const char* function, const char*, TUint32)
    : iLine(new CLine{{category == std::string(logging::categories::Error), function}}) {}
Line::~CLogHandle() {
  if (iLine->first) std::cerr << iLine->second << std::endl;
  delete iLine;
}
Line& Line::operator<<(const char* text) { return iLine->second += text, *this; }
Line& Line::operator<<(const TChr* text) { return *this << reinterpret_cast<const char*>(text); }
Line& Line::operator<<(TInt32 number) { return *this << std::to_string(number).c_str(); }
Line& Line::operator<<(TUint32 number) { return *this << std::to_string(number).c_str(); }
Line& Line::operator<<(TUint8 number) { return *this << TUint32{number}; }
using Files = FileSystemUtils;
Tdes::Tdes(const TChr* path) : iText(path == nullptr ? "" : reinterpret_cast<const char*>(path)) {}
const char* Tdes::Text() const { return iText.c_str(); }
TBool Files::InternalFileExists(const Tdes& path) { return access(path.Text(), F_OK) == 0; }
TBool Files::DirectoryExists(const Tdes& path) { return fs::is_directory(path.Text(), ignored); }
TBool Files::FileWritePerm(const Tdes& path) { return access(path.Text(), W_OK) == 0; }
int Files::CreateDirectory(const Tdes& path) { return Result(mkdir(path.Text(), 0777)); }
int Files::InternalRemoveFile(const Tdes& path) { return Result(unlink(path.Text())); }
int Files::InternalMoveFile(const Tdes& from, const Tdes& to) {
  int error = Result(rename(from.Text(), to.Text()));
  if (error == EXDEV && (error = InternalCopyFile(from, to)) == 0) error = InternalRemoveFile(from);
  return error;
}
int Files::InternalCopyFile(const Tdes& from, const Tdes& to) {
  std::error_code error;
  const std::string whole = fs::weakly_canonical(to.Text(), ignored);
  fs::copy_file(from.Text(), whole + ".part", fs::copy_options::overwrite_existing, error);
  if (!error) fs::rename(whole + ".part", whole, error);
  if (error) fs::remove(whole + ".part", ignored);
  return error.value();
}
CFileExistsCache* CFileExistsCache::FileExistsCacheInstance() {
  static CFileExistsCache cache;
  return &cache;
}
TBool CFileExistsCache::FileExists(const Tdes& path) { return Files::InternalFileExists(path); }
void CFileExistsCache::RemoveFile(const Tdes&, int& removed) { removed = 0; }
void platSleep(TUint32 us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }
void platSafecopy(char* to, const char* from, TUint32 count) { snprintf(to, count, "%s", from); }

int main(int argc, char** argv) {
  signal(SIGCHLD, SIG_DFL);  // 7
  void* entry = dlsym(dlopen(argv[argc - 1], RTLD_NOW), "FeatureCreate2");
  if (entry == nullptr) return std::cerr << "no module: " << argv[argc - 1] << std::endl, 2;
  Host host;
  auto* feature = reinterpret_cast<decltype(&FeatureCreate2)>(entry)("maincpu", host, host, host);
  const bool installed = host.Run();
  sync();          // 11
  delete feature;  // 10: outside of any delivery
  std::cout << (installed ? "installed" : "not installed") << std::endl;
  return installed ? 0 : 1;
}
