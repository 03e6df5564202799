// The restore: every stored block back at its offset, then the tail at the
// target's end.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "core/bitmap.h"
#include "mdsnap/image_format.h"
#include "mdsnap/run.h"
#include "platform/platform.h"

namespace mdsnap {

using namespace api;

// Writes len bytes at offset and says in *written how many landed. Bytes past
// the end of the target are dropped: the size checks before the first write
// keep every stored block inside the target, so only a device that reports a
// wrong size gets here, and it must not be written past its end. Aligned
// blocks of zeros at or past holesFrom are not written: a regular file
// already reads zeros there, and stays sparse.
static status_t WriteTarget(int fd, uint64_t targetSize, uint64_t holesFrom, uint64_t offset, const uint8_t* buf,
                            uint32_t len, IMessage* msg, uint64_t* written) {
  *written = 0;
  if (offset >= targetSize) return QORV_OK;
  if (targetSize - offset < len) len = uint32_t(targetSize - offset);
  uint32_t done = 0, pending = 0;  // pending: bytes from done not yet written
  auto put = [&]() {
    while (pending) {
      int64_t n = FileWriteAt(fd, buf + done, pending, offset + done);
      if (n <= 0 && done == 0) {
        msg->Trace(1, "failed to write device: %s", std::strerror(n < 0 ? errno : ENOSPC));
        return ERR_WRITE_FAILED;
      }
      if (uint32_t(n) != pending) {
        std::fprintf(stderr, "failed to write to device %" PRId64 " instead of %u)\n", int64_t(done) + (n > 0 ? n : 0),
                     len);
        return ERR_WRITE_FAILED;
      }
      done += pending;
      pending = 0;
    }
    return QORV_OK;
  };
  while (done + pending < len) {
    uint64_t at = offset + done + pending;
    uint32_t piece = kHoleBlock - uint32_t(at % kHoleBlock);
    if (piece > len - done - pending) piece = len - done - pending;
    if (at >= holesFrom && piece == kHoleBlock && IsZero(buf + done + pending, kHoleBlock)) {
      QORV_TRY(put());
      done += piece;
    } else {
      pending += piece;
    }
  }
  QORV_TRY(put());
  *written = len;
  return QORV_OK;
}

// The restore ends by waiting for every written byte to reach the device.
// Handing each few megabytes to the device as soon as they are written lets
// the device work while the copy goes on, instead of only at that end.
class WriteBehind {
 public:
  explicit WriteBehind(int fd) : fd_(fd) {}
  // Runs come in ascending order; a window spans what was written since
  // the last hand-over, holes between runs included (they hold nothing to write).
  void Wrote(uint64_t offset, uint64_t len) {
    if (!pending_) start_ = offset;
    end_ = offset + len;
    pending_ += len;
    if (pending_ >= kWindow) {
      FileWriteBehind(fd_, start_, end_ - start_);
      pending_ = 0;
    }
  }

 private:
  static constexpr uint64_t kWindow = 8 << 20;
  int fd_;
  uint64_t start_ = 0, end_ = 0, pending_ = 0;
};

// Where a restore may leave holes: past the old end of a regular file (all
// of a file that -c created). Never on a device.
static uint64_t HolesFrom(int fd) {
  uint64_t size;
  if (!RegularFileSize(fd, &size)) return UINT64_MAX;
  return (size + kHoleBlock - 1) & ~uint64_t(kHoleBlock - 1);
}

// One past the highest block whose bit is set (bits past n do not count).
static uint64_t LastStoredBlock(const uint8_t* bits, uint64_t n) {
  for (uint64_t i = BitmapBytes(n); i-- > 0;) {
    uint32_t b = bits[i];
    if (i == n / 8) b &= (1u << (n & 7)) - 1;
    if (b) return i * 8 + uint64_t(32 - __builtin_clz(b));
  }
  return 0;
}

static status_t TargetTooSmall(uint64_t needed, uint64_t targetSize, const char* name) {
  std::fprintf(stderr, "WARNING: mdsnap's volume size in bytes 0x%" PRIx64 " > 0x%" PRIx64 " - size of \"%s\"\n",
               needed, targetSize, name);
  return ERR_IO_RANGE;
}

// An image file shorter than the bitmap its header claims is refused before
// the bitmap is allocated; a pipe cannot say and is read as far as it goes.
static bool ImageCanHold(int fd, uint64_t bytes) {
  uint64_t size;
  if (!RegularFileSize(fd, &size)) return true;
  int64_t at = FilePosition(fd);
  return at < 0 || size >= uint64_t(at) + bytes;
}

status_t Restore(RunContext& ctx) {
  const Options& opt = *ctx.opt;
  IMessage* msg = ctx.msg;
  bool verbose = opt.modeFlags & MODE_VERBOSE;
  const char* name = ctx.deviceName;
  uint64_t targetSize = ctx.volumeSize;
  uint64_t targetSectors = targetSize >> ctx.sectorLog2;
  SizeGb targetGb = ToGb(targetSize);
  uint64_t holesFrom = HolesFrom(ctx.deviceFd);

  char raw[kHeaderSize];
  int64_t got = FileRead(ctx.imageFd, raw, kHeaderSize);
  if (got != int64_t(kHeaderSize)) {
    msg->Trace(1, "failed to read dump file header: %s", std::strerror(got < 0 ? errno : EIO));
    return ERR_SHORT_IO;
  }
  ImageHeader h;
  if (!ParseHeader(raw, &h)) {
    std::fprintf(stderr, "failed to parse dump file header\n");
    return ERR_IO_RANGE;
  }
  uint64_t imageBytes;
  // A file made with -c grows to hold every stored block (and the tail); it
  // only grows once the image has delivered the bitmap or the bytes that
  // need the room.
  bool growable = false;
  if (h.version == 1) {
    if (h.byteSize > targetSize) {
      uint64_t imageSectors = h.byteSize >> ctx.sectorLog2;
      msg->Trace(1,
                 "WARNING: mdsnap's volume size is at least 0x%" PRIx64 " sectors while \"%s\" size is 0x%" PRIx64
                 " sectors\n",
                 imageSectors, name, targetSectors);
      return ERR_IO_RANGE;
    }
    imageBytes = h.byteSize;
  } else {
    uint32_t sector = EstimateSectorSizeForRestore(h);
    if (sector != (1u << ctx.sectorLog2))
      msg->Trace(1, "WARNING: bytes per sector %u in mdsnap image does not match device's bytes per sector %u\n",
                 sector, 1u << ctx.sectorLog2);
    uint32_t log2 = __builtin_ctz(sector);
    imageBytes = h.sectors > (UINT64_MAX >> log2) ? UINT64_MAX : h.sectors << log2;
    if (opt.modeFlags & MODE_CREATE) {
      msg->Trace(1, "Resizing file \"%s\"\n", name);
      if (ResizeFile(ctx.deviceFd, imageBytes)) {
        targetSize = imageBytes;
        growable = true;
      } else {
        std::fprintf(stderr, "failed to resize file\n");
      }
    }
  }
  if (imageBytes > targetSize) return TargetTooSmall(imageBytes, targetSize, name);
  if (imageBytes < targetSize)
    msg->Trace(1, "WARNING: mdsnap's volume size 0x%" PRIx64 " bytes < \"%s\" size 0x%" PRIx64 " bytes\n", imageBytes,
               name, targetSize);

  const uint64_t n = h.blockCount;
  const uint32_t k = h.blockShift;
  // Saturates: a block count and shift whose product overflows is larger
  // than any target.
  const uint64_t fsBytes = n > (UINT64_MAX >> k) ? UINT64_MAX : n << k;
  // The sector-size estimate is crude; the header's own size in gigabytes
  // tells when it fell short. Only then is the source volume known to be
  // larger than the estimate, and a -c file is made as large as the file
  // system (a scanner's block count may run a cluster past the volume, so
  // it is not used when the estimate holds).
  const SizeGb estimated = ToGb(imageBytes);
  const bool estimateHolds = h.version == 1 || (estimated.whole == h.gb && estimated.hundredths == h.hundredths);
  if (growable && !estimateHolds && fsBytes > targetSize) {
    if (fsBytes <= uint64_t(INT64_MAX))
      targetSize = fsBytes;
    else
      growable = false;
  }
  uint64_t maxRun = uint64_t(kWorkBufferSize) >> k;
  if (maxRun == 0) maxRun = 1;
  if (verbose)
    msg->Trace(1, "Bytes per file system 0x%" PRIx64 ", Bytes per volume 0x%" PRIx64 "\n", fsBytes, targetSize);
  if (n > 0xFFFFFFFFull) {
    std::fprintf(stderr, "Volume is too big to restore in 32 bit OS\n");
    return ERR_TOO_BIG;
  }
  if (fsBytes == UINT64_MAX) return TargetTooSmall(fsBytes, targetSize, name);
  uint64_t bitmapBytes = BitmapBytes(n);
  IMessage* splitLog = verbose ? msg : nullptr;
  if (!ImageCanHold(ctx.imageFd, bitmapBytes)) {
    msg->Trace(1, "failed to read dump file bitmap");
    return ERR_SHORT_IO;
  }
  uint8_t* bitmap = static_cast<uint8_t*>(ctx.env->mem->Allocate(size_t(bitmapBytes ? bitmapBytes : 1), ALLOC_ZERO));
  if (!bitmap) {
    std::fprintf(stderr, "Failed to allocate bitmap buffer of size %zx\n", size_t(bitmapBytes));
    return ERR_NO_MEMORY;
  }
  *ctx.bitmap = bitmap;
  if (!ReadAll(ctx.imageFd, bitmap, bitmapBytes, splitLog)) {
    msg->Trace(1, "failed to read dump file bitmap");
    return ERR_SHORT_IO;
  }
  // A block past the end of the target would be lost: a fixed target must
  // hold the last stored block, a -c file grows to it.
  const uint64_t storedEnd = LastStoredBlock(bitmap, n) << k;
  if (growable && storedEnd > targetSize) {
    if (storedEnd <= uint64_t(INT64_MAX))
      targetSize = storedEnd;
    else
      growable = false;
  }
  if (storedEnd > targetSize) return TargetTooSmall(storedEnd, targetSize, name);
  uint64_t total = QORV::CountSetBits(bitmap, n);
  msg->BeginProgress("Restoring \"%s\" (%u.%02u Gb) from (%u.%02u GB)...", name, targetGb.whole,
                     targetGb.hundredths, h.gb, h.hundredths);
  msg->SetTotal(0, &total, nullptr);

  status_t status = QORV_OK;
  uint64_t restored = 0, lastWrote = 0;
  uint64_t dataOffset = DataOffset(n);
  do {
    if (verbose) msg->Trace(1, "DataOffset %zx\n", size_t(dataOffset));
    if (!ReadAll(ctx.imageFd, ctx.work, dataOffset - kHeaderSize - bitmapBytes, splitLog)) {
      msg->Trace(1, "failed to read aligned tail from dump file");
      status = ERR_SHORT_IO;
      break;
    }
    QORV::RunWalker runs(bitmap, n, maxRun);
    WriteBehind behind(ctx.deviceFd);
    uint64_t first, count;
    while (status == QORV_OK && runs.Next(&first, &count)) {
      msg->AddPosition(&count);
      if (msg->CheckBreak(false)) {
        status = ERR_TOO_BIG;
        break;
      }
      // Runs end by the last stored block, which the target was checked to hold.
      uint64_t offset = first << k, bytes = count << k;
      for (uint64_t done = 0; done < bytes && status == QORV_OK;) {
        uint32_t piece = uint32_t(bytes - done < kWorkBufferSize ? bytes - done : kWorkBufferSize);
        if (!ReadAll(ctx.imageFd, ctx.work, piece, splitLog)) {
          msg->Trace(1, "failed to read dump file data");
          status = ERR_SHORT_IO;
          break;
        }
        uint64_t written;
        status = WriteTarget(ctx.deviceFd, targetSize, holesFrom, offset + done, ctx.work, piece, msg, &written);
        behind.Wrote(offset + done, written);
        done += piece;
        restored += written;
      }
      lastWrote = offset + bytes;
    }
  } while (false);
  msg->EndProgress();
  if (status != QORV_OK) return status;

  // The tail is placed so that it ends at the end of the target. Its
  // presence is not recorded in the header.
  const char* suffix = "";
  const bool room = fsBytes < targetSize && lastWrote + kTailMin <= targetSize;
  if (fsBytes < targetSize && verbose)
    msg->Trace(1, "Try to restore tail of volume. last wrote 0x%" PRIx64 "\n", lastWrote);
  // When the estimate holds, a target without room cannot be missing a
  // tail the dump wrote; whatever follows is left over from an earlier,
  // longer image in the same file (a dump does not truncate).
  if (room || !estimateHolds) {
    uint64_t tail = ReadUpTo(ctx.imageFd, ctx.work, kTailSize);
    if (tail < kTailMin) {
      if (room && verbose)
        msg->Trace(1, "%d: Failed to read last 1024 bytes of image at 0x%" PRIx64 "\n", int(tail),
                   dataOffset + restored);
    } else {
      if (!room || tail > targetSize) {
        // The source volume was larger than the estimate: a -c file ends
        // with the tail right after the file system (the best guess left);
        // a fixed target is too small for the volume.
        uint64_t end = fsBytes > lastWrote ? fsBytes : lastWrote;
        uint64_t needed = end > uint64_t(INT64_MAX) ? UINT64_MAX : end + tail;
        if (!growable || needed > uint64_t(INT64_MAX)) return TargetTooSmall(needed, targetSize, name);
        targetSize = needed;
      }
      uint64_t at = targetSize - tail;
      if (FileWriteAt(ctx.deviceFd, ctx.work, size_t(tail), at) == int64_t(tail)) {
        restored += tail;
        suffix = " (including tail)";
        if (verbose) msg->Trace(1, "Restored 0x%x tail bytes of volume at 0x%" PRIx64 "\n", unsigned(tail), at);
      } else {
        std::fprintf(stderr, "failed to restore tail of volume. Not critical. \"%s\"\n", std::strerror(errno));
      }
    }
  }
  if (growable && !ResizeFile(ctx.deviceFd, targetSize)) {
    std::fprintf(stderr, "failed to resize file\n");
    return ERR_WRITE_FAILED;
  }
  FlushDeviceCaches(ctx.device);
  SizeGb gb = ToGb(restored);
  msg->Trace(1, "Restored %" PRIu64 " bytes%s, (%u.%02u GB)\n", restored, suffix, gb.whole, gb.hundredths);
  return QORV_OK;
}

}  // namespace mdsnap
