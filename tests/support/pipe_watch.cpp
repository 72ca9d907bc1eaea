// Pipes between a test and the children it watches.
#include "pipe_watch.h"

#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>

namespace sfltest {

Pipe::Pipe() {
  int fds[2];
  if (::pipe(fds) != 0) std::abort();
  r_ = fds[0];
  w_ = fds[1];
}

Pipe::~Pipe() {
  CloseRead();
  CloseWrite();
}

void Pipe::CloseRead() {
  if (r_ >= 0) ::close(r_);
  r_ = -1;
}

void Pipe::CloseWrite() {
  if (w_ >= 0) ::close(w_);
  w_ = -1;
}

char NextByte(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  int ready;
  do ready = ::poll(&p, 1, ms);
  while (ready < 0 && errno == EINTR);
  if (ready != 1) return '?';
  char c = 0;
  ssize_t n;
  do n = ::read(fd, &c, 1);
  while (n < 0 && errno == EINTR);
  return n == 1 ? c : '\0';
}

}  // namespace sfltest
