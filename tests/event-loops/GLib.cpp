#include <glib-unix.h>
#include <utility>

#include "tests/event-loops/Loop.h"

namespace {

/** Sources take their functions under one type, by way of a type that fits all. */
template <class Function>
GSourceFunc Cast(Function function) {
  return reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(function));
}

class GLib : public Loop {
 public:
  ~GLib() override {
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  bool OnReadable(int descriptor, Callback callback) override {
    const GUnixFDSourceFunc readable = [](int, GIOCondition, gpointer call) -> gboolean {
      (*static_cast<Callback*>(call))();
      return G_SOURCE_CONTINUE;
    };
    Attach(g_unix_fd_source_new(descriptor, G_IO_IN), Cast(readable), std::move(callback));
    return true;
  }
  void After(unsigned milliseconds, Callback callback) override {
    const GSourceFunc due = [](gpointer call) -> gboolean {
      (*static_cast<Callback*>(call))();
      return G_SOURCE_REMOVE;
    };
    Attach(g_timeout_source_new(milliseconds), due, std::move(callback));
  }
  bool WatchAChild() override {
    const GChildWatchFunc ended = [](GPid, int, gpointer) {};
    Attach(g_child_watch_source_new(StartChild()), Cast(ended), nullptr);
    return true;
  }
  void Run() override { g_main_loop_run(loop_); }
  void Stop() override { g_main_loop_quit(loop_); }

 private:
  void Attach(GSource* source, GSourceFunc function, Callback callback) {
    g_source_set_callback(source, function, new Callback(std::move(callback)),
                          [](gpointer call) { delete static_cast<Callback*>(call); });
    g_source_attach(source, context_);
    g_source_unref(source);
  }

  GMainContext* context_ = g_main_context_new();
  GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
};

}  // namespace

std::vector<LoopKind> LoopKinds() {
  return {{"GLib", [] { return std::make_unique<GLib>(); }}};
}
