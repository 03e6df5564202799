#include <cstring>

#include "mdsnap/run.h"
#include "platform/platform.h"

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
    int64_t n = writing ? api::FileWrite(fd, p + done, size_t(piece)) : api::FileRead(fd, p + done, size_t(piece));
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

bool IsZero(const uint8_t* p, uint32_t len) {
  static const uint8_t kZeros[kHoleBlock] = {};
  while (len) {
    uint32_t piece = len < kHoleBlock ? len : kHoleBlock;
    if (std::memcmp(p, kZeros, piece) != 0) return false;
    p += piece;
    len -= piece;
  }
  return true;
}

// Positioned writes in calls of at most 256 MiB, reported like a stream's.
static bool PwriteAll(int fd, const uint8_t* p, uint64_t len, uint64_t at, uint64_t base, api::IMessage* verbose) {
  uint64_t done = 0;
  int calls = 0;
  while (done < len) {
    uint64_t piece = len - done < kMaxCall ? len - done : kMaxCall;
    int64_t n = api::FileWriteAt(fd, p + done, size_t(piece), at + done);
    if (n <= 0) return false;
    ++calls;
    if (verbose && (calls > 1 || uint64_t(n) < len))
      verbose->Trace(1, "split write [%zx + %zx)\n", size_t(base + done), size_t(n));
    done += uint64_t(n);
  }
  return true;
}

ImageWriter::ImageWriter(int fd) : fd_(fd) {
  uint64_t size;
  if (!api::RegularFileSize(fd, &size)) return;
  int64_t at = api::FilePosition(fd);
  // Appending writes land at the end whatever the position says.
  if (api::FileAppends(fd) || at < 0) return;
  positioned_ = true;
  pos_ = uint64_t(at);
  holesFrom_ = (size + kHoleBlock - 1) & ~uint64_t(kHoleBlock - 1);
}

bool ImageWriter::Write(const void* buf, uint64_t len, api::IMessage* verbose) {
  return Put(static_cast<const uint8_t*>(buf), len, false, verbose);
}

bool ImageWriter::Zeros(uint64_t len) {
  static const uint8_t kZeros[1 << 20] = {};
  for (uint64_t done = 0; done < len;) {
    uint64_t piece = len - done < sizeof kZeros ? len - done : sizeof kZeros;
    if (!Put(kZeros, piece, true, nullptr)) return false;
    done += piece;
  }
  return true;
}

uint64_t ImageWriter::Send(int fd, uint64_t offset, uint64_t len) {
  uint64_t done = 0;
  while (sendable_ && !positioned_ && done < len) {
    uint64_t piece = len - done < kMaxCall ? len - done : kMaxCall;
    bool unsupported = false;
    int64_t n = api::FileSendAt(fd_, fd, size_t(piece), offset + done, &unsupported);
    if (n <= 0) {
      // Descriptors the system cannot pair are not tried again.
      if (unsupported) sendable_ = false;
      break;
    }
    done += uint64_t(n);
  }
  return done;
}

bool ImageWriter::Put(const uint8_t* p, uint64_t len, bool zeros, api::IMessage* verbose) {
  if (!positioned_) return WriteAll(fd_, p, len, verbose);
  // Whole aligned blocks of zeros past the old end are skipped; everything
  // between them goes out in one call.
  uint64_t done = 0, pending = 0;  // pending: bytes from done not yet written
  while (done + pending < len) {
    uint64_t at = pos_ + done + pending;
    uint64_t piece = kHoleBlock - at % kHoleBlock;
    if (piece > len - done - pending) piece = len - done - pending;
    if (at >= holesFrom_ && piece == kHoleBlock && (zeros || IsZero(p + done + pending, kHoleBlock))) {
      if (pending && !PwriteAll(fd_, p + done, pending, pos_ + done, done, verbose)) return false;
      done += pending + piece;
      pending = 0;
    } else {
      pending += piece;
    }
  }
  if (pending && !PwriteAll(fd_, p + done, pending, pos_ + done, done, verbose)) return false;
  pos_ += len;
  return true;
}

bool ImageWriter::Finish() {
  if (!positioned_) return true;
  uint64_t size;
  if (!api::RegularFileSize(fd_, &size)) return false;
  if (size < pos_ && !api::ResizeFile(fd_, pos_)) return false;
  return api::SeekFile(fd_, pos_);
}

uint64_t ReadUpTo(int fd, void* buf, uint64_t len) {
  uint8_t* p = static_cast<uint8_t*>(buf);
  uint64_t done = 0;
  while (done < len) {
    uint64_t piece = len - done < kMaxCall ? len - done : kMaxCall;
    int64_t n = api::FileRead(fd, p + done, size_t(piece));
    if (n <= 0) break;
    done += uint64_t(n);
  }
  return done;
}

}  // namespace mdsnap
