#pragma once

#include <csignal>

/**
 * While it lives, a write to a pipe without a reader fails with EPIPE and nothing else happens,
 * whatever the host has set for SIGPIPE. Dispositions are not touched: the signal is blocked for
 * the calling thread, and one that the write raised is taken back before the mask is restored.
 */
class CSigPipeBlock {
 public:
  CSigPipeBlock();
  ~CSigPipeBlock();

  CSigPipeBlock(const CSigPipeBlock&) = delete;
  CSigPipeBlock& operator=(const CSigPipeBlock&) = delete;

 private:
  sigset_t iBefore{};
  bool iWasPending = false;  // the host's own, not ours to take
};
