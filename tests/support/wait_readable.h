// The wait of the test peers on loopback: until their socket has something to read, or their wake
// pipe is written to when they are told to stop.
#pragma once

#include <poll.h>

#include <cerrno>

namespace slm::test {

// False when woken by the pipe or on error.
inline bool waitReadable(int fd, int wakeFd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
  int ready;
  while ((ready = poll(fds, 2, -1)) < 0 && errno == EINTR) {
  }
  return ready > 0 && (fds[1].revents & POLLIN) == 0 &&
         (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

}  // namespace slm::test
