#pragma once

/**
 * A pipe. Owns both ends, which are close-on-exec, and closes what has not been taken when it
 * ends.
 */
class CPipe {
 public:
  CPipe() = default;
  ~CPipe();

  CPipe(const CPipe&) = delete;
  CPipe& operator=(const CPipe&) = delete;

  /** Create the pipe; meant to be called once. @return false when the system refuses. */
  bool Open();

  /**
   * Set how many bytes the pipe holds. The kernel rounds it up to a power-of-two number of pages,
   * and may refuse, upon which the pipe stays as it was.
   */
  void SetCapacity(int bytes);

  /** The ends, still owned by the pipe; -1 when there is none. */
  int ReadEnd() const { return iEnds[0]; }
  int WriteEnd() const { return iEnds[1]; }

  /** Hand the read end over to the caller, who closes it. */
  int TakeReadEnd();

 private:
  int iEnds[2] = {-1, -1};
};
