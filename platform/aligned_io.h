// The aligned fall-back both volume devices share: devices that refuse an
// unaligned or partial transfer are read and written by whole 4096-byte
// pieces through a bounce block. The system calls and the failure reports
// stay with each device, passed in as callables:
//   read/write(buffer, length, offset, &err) -> bytes moved, or -1 with err set
//   readFailed/writeFailed(offset, buffer, length, got, err) -> status
#pragma once
#include <cstdint>
#include <cstring>

#include "core/api/device.h"

namespace api {

constexpr uint32_t kAlignedPiece = 4096;

template <class Read, class ReadFailed>
status_t ReadByAlignedPieces(uint64_t offset, uint8_t* out, uint32_t count, uint64_t size, Read read,
                             ReadFailed readFailed) {
  uint8_t bounce[kAlignedPiece];
  uint64_t at = offset - offset % kAlignedPiece;
  uint32_t skip = uint32_t(offset % kAlignedPiece), done = 0;
  while (done < count) {
    uint32_t want = at + kAlignedPiece > size ? uint32_t(size - at) : kAlignedPiece;
    int err = 0;
    int64_t n = read(bounce, want, at, &err);
    uint32_t piece = kAlignedPiece - skip;
    if (piece > count - done) piece = count - done;
    if (n < 0) return readFailed(at, bounce, want, n, err);
    if (uint64_t(n) < uint64_t(skip) + piece) return readFailed(at, bounce, want, n, 0);
    std::memcpy(out + done, bounce + skip, piece);
    done += piece;
    at += kAlignedPiece;
    skip = 0;
  }
  return QORV_OK;
}

// `in` null writes zeros. A piece only partly covered is read first.
template <class Read, class Write, class WriteFailed>
status_t WriteByAlignedPieces(uint64_t offset, const uint8_t* in, uint32_t count, uint64_t size, Read read,
                              Write write, WriteFailed writeFailed) {
  uint8_t block[kAlignedPiece];
  uint64_t at = offset - offset % kAlignedPiece;
  uint32_t skip = uint32_t(offset % kAlignedPiece), done = 0;
  while (done < count) {
    uint32_t piece = kAlignedPiece - skip;
    if (piece > count - done) piece = count - done;
    uint32_t len = at + kAlignedPiece > size ? uint32_t(size - at) : kAlignedPiece;
    int err = 0;
    if (piece != len) {
      int64_t n = read(block, len, at, &err);
      if (n != int64_t(len)) return n < 0 ? writeFailed(at, block, len, n, err) : ERR_SHORT_IO;
    }
    if (in)
      std::memcpy(block + skip, in + done, piece);
    else
      std::memset(block + skip, 0, piece);
    int64_t w = write(block, len, at, &err);
    if (w != int64_t(len)) return writeFailed(at, block, len, w, w < 0 ? err : 0);
    done += piece;
    at += kAlignedPiece;
    skip = 0;
  }
  return QORV_OK;
}

}  // namespace api
