// Test support: a pipe between a test and a forked child it watches, and a
// bounded wait for the next byte on it (the hold switch's tales).
#ifndef SFL_TEST_PIPE_WATCH_H
#define SFL_TEST_PIPE_WATCH_H

namespace sfltest {

// Both ends of a new pipe (aborts when none can be made); each end is
// closed by Close*() or when the pipe goes, whichever comes first.
class Pipe {
 public:
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int ReadEnd() const { return r_; }
  int WriteEnd() const { return w_; }
  void CloseRead();
  void CloseWrite();

 private:
  int r_ = -1, w_ = -1;
};

// The next byte from `fd` within `ms` milliseconds: '\0' at end of file,
// '?' when nothing came in time.
char NextByte(int fd, int ms = 10000);

}  // namespace sfltest

#endif  // SFL_TEST_PIPE_WATCH_H
