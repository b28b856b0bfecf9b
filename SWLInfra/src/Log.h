#pragma once

#include <string>

#include "host/Logging.h"

/**
 * The log of one source file: knows the module and the file, asks the control, and writes each
 * message as "(" + pieces + ")" + line end.
 *
 * Used as one line: `KLog.Error("Install", "failed to open ", path);`. The first argument is the
 * function's name: bare, or the full signature for category Interface. The caller's line number
 * comes with it.
 */
class CLog {
 public:
  /** A function's name together with the line of the call that named it. */
  struct TSite {
    // Implicit, so that a literal at the call picks up the caller's line.
    // NOLINTNEXTLINE(google-explicit-constructor)
    constexpr TSite(const char* function, int line = __builtin_LINE())
        : iFunction(function), iLine(static_cast<TUint32>(line)) {}

    const char* iFunction;
    TUint32 iLine;
  };

  /** @param source  the file's path from the component root, without extension. */
  constexpr CLog(const char* module, const char* source) : iModule(module), iSource(source) {}

  template <typename... TPieces>
  void Error(TSite site, const TPieces&... pieces) const {
    Write(logging::categories::Error, site, pieces...);
  }

  template <typename... TPieces>
  void Warning(TSite site, const TPieces&... pieces) const {
    Write(logging::categories::Warning, site, pieces...);
  }

  template <typename... TPieces>
  void Info(TSite site, const TPieces&... pieces) const {
    Write(logging::categories::Info, site, pieces...);
  }

  template <typename... TPieces>
  void Interface(TSite site, const TPieces&... pieces) const {
    Write(logging::categories::Interface, site, pieces...);
  }

  /** Written whatever the control says: it is not asked. */
  template <typename... TPieces>
  void Always(TSite site, const TPieces&... pieces) const {
    WriteLine(ETrue, logging::categories::Always, site, pieces...);
  }

 private:
  template <typename... TPieces>
  void Write(const char* category, TSite site, const TPieces&... pieces) const {
    WriteLine(logging::IControl().IsEnabled(iModule, category), category, site, pieces...);
  }

  template <typename... TPieces>
  void WriteLine(TBool enabled, const char* category, TSite site, const TPieces&... pieces) const {
    logging::internals::CLogHandle line(logging::internals::ILog(), enabled, category, iModule,
                                        site.iFunction, iSource, site.iLine);
    line << "(";
    static_cast<void>((line << ... << Piece(pieces)));
    line << ")"
         << "\n";
  }

  static const char* Piece(const std::string& text) { return text.c_str(); }
  template <typename T>
  static const T& Piece(const T& piece) {
    return piece;
  }

  const char* iModule;
  const char* iSource;
};
