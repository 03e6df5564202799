#include <unistd.h>

#include <cerrno>

#include "mdsnap/run.h"

namespace mdsnap {

static constexpr uint64_t kMaxCall = 0x10000000;  // 256 MiB per system call

// Moves len bytes in calls of at most 256 MiB. With a verbose sink, every
// piece of a transfer that needed more than one call is reported.
static bool Transfer(int fd, uint8_t* p, uint64_t len, bool writing, api::IMessage* verbose) {
  const char* what = writing ? "split write [%zx + %zx)\n" : "split read [%zx + %zx)\n";
  uint64_t done = 0;
  int calls = 0;
  while (done < len) {
    uint64_t piece = len - done < kMaxCall ? len - done : kMaxCall;
    ssize_t n = writing ? ::write(fd, p + done, size_t(piece)) : ::read(fd, p + done, size_t(piece));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    ++calls;
    if (verbose && (calls > 1 || uint64_t(n) < len)) verbose->Trace(1, what, size_t(done), size_t(n));
    done += uint64_t(n);
  }
  return true;
}

bool WriteAll(int fd, const void* buf, uint64_t len, api::IMessage* verbose) {
  return Transfer(fd, static_cast<uint8_t*>(const_cast<void*>(buf)), len, true, verbose);
}

bool ReadAll(int fd, void* buf, uint64_t len, api::IMessage* verbose) {
  return Transfer(fd, static_cast<uint8_t*>(buf), len, false, verbose);
}

uint64_t ReadUpTo(int fd, void* buf, uint64_t len) {
  uint8_t* p = static_cast<uint8_t*>(buf);
  uint64_t done = 0;
  while (done < len) {
    ssize_t n = ::read(fd, p + done, size_t(len - done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += uint64_t(n);
  }
  return done;
}

}  // namespace mdsnap
