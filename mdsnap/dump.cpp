// The dump: recognise the file system (or apply the head-only or raw rule),
// then write header, bitmap, padding, every marked block and the tail.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "core/bitmap.h"
#include "core/overlay.h"
#include "fs/scanners.h"
#include "mdsnap/image_format.h"
#include "mdsnap/run.h"
#include "mdsnap/scan_table.h"
#include "platform/platform.h"

namespace mdsnap {

using namespace api;

namespace {

status_t ApfsNoCipher(QORV_SCANNER_ARGS) {
  return QORV::ScanApfs(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems, 0);
}

constexpr ScannerSlot kScanners[] = {
    {FS_NTFS, QORV::ScanNtfs, "NTFS"},
    {FS_FAT_OTHER, QORV::ScanFat, "FAT"},
    {FS_FAT, QORV::ScanFat, "FAT"},
    {FS_EXFAT, QORV::ScanExFat, "exFAT"},
    {FS_HFS, QORV::ScanHfs, "HFS"},
    {FS_EXT, QORV::ScanExt, "ExtFs"},
    {FS_REFS3_OLD, QORV::ScanRefs35Minus, "REFS 3.5-"},
    {FS_REFS3_NEW, QORV::ScanRefs36Plus, "REFS 3.6+"},
    {FS_REFS1, QORV::ScanRefs1, "REFS 1.x"},
    {FS_BTRFS, QORV::ScanBtrfs, "Btrfs"},
    {FS_APFS, ApfsNoCipher, "APFS"},
};

// Reads count bytes at offset, looping over short reads; false when the
// descriptor delivers fewer.
bool PreadAll(int fd, uint64_t offset, uint8_t* buf, uint32_t count) {
  uint32_t done = 0;
  while (done < count) {
    int64_t n = FileReadAt(fd, buf + done, count - done, offset + done);
    if (n <= 0) return false;
    done += uint32_t(n);
  }
  return true;
}

// The overlay's quiet way down to the volume: the device object reports a
// failed read on its own, the descriptor does not.
class DescriptorReader : public QORV::IQuietReader {
 public:
  explicit DescriptorReader(int fd) : fd_(fd) {}
  bool ReadAll(uint64_t offset, void* buffer, uint32_t count) override {
    return PreadAll(fd_, offset, static_cast<uint8_t*>(buffer), count);
  }

 private:
  int fd_;
};

}  // namespace

const ScannerSlot* FindScanner(uint32_t bit) {
  for (const auto& s : kScanners)
    if (s.bit == bit) return &s;
  return nullptr;
}

status_t RecognizeAndScan(uint32_t fsMask, CLibEnv* env, IDeviceRWBlock* device, IMessage* msg, uint32_t scanFlags,
                          ScanResult* out, int deviceFd) {
  *out = ScanResult();
  DescriptorReader quiet(deviceFd);
  QORV::CRWBlockMemMdSnap overlay(env, device, deviceFd >= 0 ? &quiet : nullptr);
  IDeviceRWBlock* dev = (scanFlags & SCAN_NO_JOURNAL) ? device : &overlay;
  status_t status = ERR_NOT_RECOGNIZED;
  for (uint64_t bit = 1; bit <= 0x80000000u; bit <<= 1) {
    if (!(fsMask & bit)) continue;
    const ScannerSlot* slot = FindScanner(uint32_t(bit));
    if (!slot) continue;
    // Every attempt sees the volume as it is on disk.
    overlay.Empty();
    status = slot->entry(env, dev, msg, scanFlags, &out->bitmap, &out->blockCount, &out->blockShift, &out->problems);
    if (status == QORV_OK) {
      out->recognizedBit = uint32_t(bit);
      if (msg) {
        if (overlay.SectorCount())
          msg->Trace(1, "0x%" PRIx64 " bytes written in memory.", overlay.SectorCount() * 512);
        msg->Trace(1, "Recognized as %s.", slot->name);
      }
      break;
    }
    out->bitmap = nullptr;
    if (status != ERR_NOT_RECOGNIZED) break;
  }
  if (status == ERR_NOT_RECOGNIZED && msg) {
    msg->Trace(1, "mdsnap: failed to recognize filesystem from %x", fsMask);
    msg->Trace(1, "%s", LibraryVersionText().c_str());
  }
  overlay.Empty();
  return status;
}

uint32_t HeadOnlyShift(uint64_t size) {
  uint32_t k = 0;
  bool firstNonZero = true;
  for (uint32_t i = 0; i <= 20; ++i) {
    if ((size >> i) > 0xFFFFFFFFull) continue;
    if (size & ((uint64_t(1) << i) - 1)) {
      if (firstNonZero && i != 0) k = i;
      break;
    }
    k = i;
    if (i != 0) firstNonZero = false;
  }
  return k;
}

uint32_t RawShift(uint64_t size) {
  uint32_t k = 9;
  while (k < 20 && (size & ((uint64_t(1) << k) - 1)) == 0) ++k;
  return k;
}

static status_t AllocateBitmap(CLibEnv* env, uint64_t count, uint8_t fill, uint8_t** out) {
  uint64_t bytes = QORV::BlockBitmap::BytesFor(count);
  *out = static_cast<uint8_t*>(env->mem->Allocate(size_t(bytes ? bytes : 1), ALLOC_ZERO));
  if (!*out) return ERR_NO_MEMORY;
  if (fill) std::memset(*out, fill, size_t(bytes));
  return QORV_OK;
}

status_t HeadOnlyBitmap(CLibEnv* env, IDeviceRWBlock* device, IMessage* msg, ScanResult* out) {
  *out = ScanResult();
  msg->Trace(1, "Dump first 20M and last 1M.");
  uint64_t size = device->GetSize();
  uint32_t k = HeadOnlyShift(size);
  uint64_t n = size >> k;
  if (n > 0xFFFFFFFFull) {
    msg->Trace(1, "Volume is too big to dump it");
    return ERR_TOO_BIG;
  }
  QORV_TRY(AllocateBitmap(env, n, 0, &out->bitmap));
  QORV::BlockBitmap bits(out->bitmap, n);
  uint64_t head = uint64_t(20 * 1024 * 1024) >> k;
  bits.Mark(0, head < n ? head : n);
  uint64_t tail = uint64_t(1024 * 1024) >> k;
  // A volume smaller than the tail range keeps only its head.
  if (n >= tail) bits.Mark(n - tail, tail);
  out->blockCount = n;
  out->blockShift = k;
  return QORV_OK;
}

// Reads volume bytes straight from the descriptor. Bytes past the volume's
// end (a scanner's block that straddles a truncated volume) come back as zeros.
static bool ReadVolume(int fd, uint64_t volumeSize, uint64_t offset, uint8_t* buf, uint32_t len) {
  uint32_t inside = offset >= volumeSize ? 0 : uint32_t(volumeSize - offset < len ? volumeSize - offset : len);
  if (!PreadAll(fd, offset, buf, inside)) return false;
  std::memset(buf + inside, 0, len - inside);
  return true;
}

namespace {

// The holes of a volume kept in a regular file read as zeros, so the copy
// hands them to the image as zeros instead of reading them. Any other
// volume, or a file whose file system cannot say, is all data.
class VolumeHoles {
 public:
  VolumeHoles(int fd, uint64_t size) : fd_(fd), size_(size) {
    uint64_t fileSize;
    usable_ = RegularFileSize(fd, &fileSize);
  }
  // How many bytes from offset on (at most len) are all hole (*hole) or all data.
  uint64_t Extent(uint64_t offset, uint64_t len, bool* hole) {
    *hole = false;
    if (!usable_ || offset >= size_) return len;
    if (offset < from_ || offset >= to_) Look(offset);
    *hole = hole_;
    return to_ - offset < len ? to_ - offset : len;
  }

 private:
  void Look(uint64_t offset) {
    from_ = offset;
    if (!FileExtent(fd_, offset, size_, &hole_, &to_)) {
      hole_ = false;
      to_ = UINT64_MAX;
      usable_ = false;
    }
  }

  int fd_;
  uint64_t size_;
  bool usable_;
  bool hole_ = false;
  uint64_t from_ = 0, to_ = 0;  // the extent last looked up
};

// Shorter holes are read like data: not worth a write of their own.
constexpr uint64_t kHoleSkipMin = 64 * 1024;

// A copy from a volume whose pages are not in memory would wait for the
// device on every run in turn. Once a read finds pages missing, the stored
// runs up to this many bytes ahead are asked for at once, so that the device
// fetches them while the copy works; while every page is there, reading
// costs no call more than before.
constexpr uint64_t kReadAhead = 32 << 20;

class ReadAhead {
 public:
  ReadAhead(int fd, uint64_t volumeSize, const uint8_t* bitmap, uint64_t n, uint32_t k, uint64_t maxRun)
      : fd_(fd), size_(volumeSize), k_(k), runs_(bitmap, n, maxRun), holes_(fd, volumeSize) {}
  // ReadVolume for the stored bytes at offset, the image's `stored` bytes
  // from its first block on.
  bool Read(uint64_t offset, uint8_t* buf, uint32_t len, uint64_t stored) {
    uint32_t got = 0;
    if (cached_ && offset <= size_ && len <= size_ - offset) {
      bool unsupported;
      int64_t n = FileReadCachedAt(fd_, buf, len, offset, &unsupported);
      if (unsupported) cached_ = false;
      if (n == int64_t(len)) return true;
      if (n > 0) got = uint32_t(n);
      if (!unsupported) Fetch(stored + got);
    }
    return ReadVolume(fd_, size_, offset + got, buf + got, len - got);
  }

 private:
  // Holes and never written space are left out: the copy does not read
  // them, and fetching them would only fill memory with zeros.
  void Fetch(uint64_t stored) {
    uint64_t first, count;
    while (asked_ < stored + kReadAhead && runs_.Next(&first, &count)) {
      uint64_t offset = first << k_, bytes = count << k_;
      for (uint64_t done = 0; asked_ + bytes > stored && done < bytes && offset + done < size_;) {
        bool hole;
        uint64_t span = holes_.Extent(offset + done, bytes - done, &hole);
        if (!hole) FilePrefetch(fd_, offset + done, span);
        done += span;
      }
      asked_ += bytes;
    }
  }

  int fd_;
  uint64_t size_;
  uint32_t k_;
  bool cached_ = true;
  QORV::RunWalker runs_;  // a walk of its own, ahead of the copy's
  VolumeHoles holes_;
  uint64_t asked_ = 0;    // stored bytes of the runs it has passed
};

}  // namespace

status_t Dump(RunContext& ctx) {
  const Options& opt = *ctx.opt;
  IMessage* msg = ctx.msg;
  ScanResult scan;
  if (opt.modeFlags & MODE_RAW) {
    uint32_t k = RawShift(ctx.volumeSize);
    uint64_t n = ctx.volumeSize >> k;
    if (n > 0xFFFFFFFFull) {
      std::fprintf(stderr, "Volume is too big to dump in 32 bit OS\n");
      return ERR_TOO_BIG;
    }
    QORV_TRY(AllocateBitmap(ctx.env, n, 0xFF, &scan.bitmap));
    scan.blockCount = n;
    scan.blockShift = k;
  } else {
    status_t s = (opt.scanFlags & SCAN_HEAD_ONLY)
                     ? HeadOnlyBitmap(ctx.env, ctx.device, msg, &scan)
                     : RecognizeAndScan(opt.fsMask, ctx.env, ctx.device, msg, opt.scanFlags, &scan, ctx.deviceFd);
    *ctx.bitmap = scan.bitmap;
    if (s == ERR_NOT_RECOGNIZED) {
      msg->Trace(1, "Couldn't recognize FS, try '--head' option to capture only header/tail of volume.");
      return s;
    }
    if (s != QORV_OK) return s;
  }
  *ctx.bitmap = scan.bitmap;
  return WriteImage(ctx, scan);
}

status_t WriteImage(RunContext& ctx, const ScanResult& scan) {
  const Options& opt = *ctx.opt;
  IMessage* msg = ctx.msg;
  bool verbose = opt.modeFlags & MODE_VERBOSE;
  uint64_t volumeSectors = ctx.volumeSize >> ctx.sectorLog2;
  // Whatever a scanner handed back, an image that no restore would accept is
  // never started.
  if (scan.blockCount > 0xFFFFFFFFull) {
    msg->Trace(1, "Volume is too big to dump it");
    return ERR_TOO_BIG;
  }

  const uint64_t n = scan.blockCount;
  const uint32_t k = scan.blockShift;
  const uint64_t fsBytes = n > (UINT64_MAX >> k) ? UINT64_MAX : n << k;
  if (verbose)
    msg->Trace(1, "Bytes per file system 0x%" PRIx64 ", Bytes per volume 0x%" PRIx64 "\n", fsBytes, ctx.volumeSize);
  uint64_t maxRun = uint64_t(kWorkBufferSize) >> k;
  if (maxRun == 0) maxRun = 1;  // blocks larger than the buffer move in pieces
  // Blocks that start past the volume's end hold nothing to copy: a damaged
  // header can claim terabytes of them on a volume of kilobytes, and the
  // image would fill with their zeros. They stay in the bitmap's size but
  // are not stored (a block that straddles the end still is).
  if (fsBytes > ctx.volumeSize && k < 64) {
    uint64_t from = (ctx.volumeSize >> k) + ((ctx.volumeSize & ((uint64_t(1) << k) - 1)) != 0);
    uint64_t dropped = from < n ? QORV::ClearBits(scan.bitmap, from, n) : 0;
    if (dropped && verbose)
      msg->Trace(1, "%" PRIu64 " blocks past the end of the volume are not stored\n", dropped);
  }
  uint64_t total = QORV::CountSetBits(scan.bitmap, n);
  SizeGb fsGb = ToGb(fsBytes);
  msg->BeginProgress("Dumping \"%s\" (%u.%02u GB) ...", ctx.deviceName, fsGb.whole, fsGb.hundredths);
  msg->SetTotal(0, &total, nullptr);

  status_t status = QORV_OK;
  uint64_t data = 0, lastRead = 0;
  char header[kHeaderSize];
  FormatHeader(header, volumeSectors, ctx.volumeSize, n, k, ctx.deviceName);
  uint64_t bitmapBytes = BitmapBytes(n), dataOffset = DataOffset(n);
  IMessage* splitLog = verbose ? msg : nullptr;
  ImageWriter out(ctx.imageFd);
  do {
    if (!out.Write(header, kHeaderSize, nullptr)) {
      msg->Trace(1, "failed to write header: %s", std::strerror(errno));
      status = ERR_WRITE_FAILED;
      break;
    }
    if (!out.Write(scan.bitmap, bitmapBytes, splitLog)) {
      msg->Trace(1, "failed to write bitmap to dump file");
      status = ERR_WRITE_FAILED;
      break;
    }
    if (verbose) msg->Trace(1, "DataOffset %zx\n", size_t(dataOffset));
    std::memset(ctx.work, 0, 4096);
    if (!out.Write(ctx.work, dataOffset - kHeaderSize - bitmapBytes, splitLog)) {
      msg->Trace(1, "failed to write aligned tail to dump file");
      status = ERR_WRITE_FAILED;
      break;
    }
    // Runs follow each other in the image, so the work buffer gathers as many
    // as it holds and goes out in one write.
    uint32_t filled = 0;
    auto flush = [&]() {
      bool ok = out.Write(ctx.work, filled, splitLog);
      filled = 0;
      return ok;
    };
    VolumeHoles holes(ctx.deviceFd, ctx.volumeSize);
    ReadAhead volume(ctx.deviceFd, ctx.volumeSize, scan.bitmap, n, k, maxRun);
    QORV::RunWalker runs(scan.bitmap, n, maxRun);
    uint64_t first, count;
    while (status == QORV_OK && runs.Next(&first, &count)) {
      msg->AddPosition(&count);
      if (msg->CheckBreak(false)) {
        status = ERR_TOO_BIG;
        break;
      }
      uint64_t offset = first << k, bytes = count << k;
      for (uint64_t done = 0; done < bytes;) {
        // A hole worth skipping needs a run at least that long.
        bool hole = false;
        uint64_t span = bytes - done;
        if (span >= kHoleSkipMin) span = holes.Extent(offset + done, span, &hole);
        if (hole && span >= kHoleSkipMin) {
          if ((filled && !flush()) || !out.Zeros(span)) {
            msg->Trace(1, "failed to write dump file");
            status = ERR_WRITE_FAILED;
            break;
          }
          done += span;
          data += span;
          continue;
        }
        if (out.Streams() && offset + done < ctx.volumeSize) {
          // Bytes inside the volume go to a stream without passing through
          // the work buffer; whatever the kernel does not move that way
          // takes the buffered path, which reports a failure as it always has.
          uint64_t inside = ctx.volumeSize - offset - done < span ? ctx.volumeSize - offset - done : span;
          if (filled && !flush()) {
            msg->Trace(1, "failed to write dump file");
            status = ERR_WRITE_FAILED;
            break;
          }
          uint64_t sent = out.Send(ctx.deviceFd, offset + done, inside);
          done += sent;
          data += sent;
          if (sent == inside) continue;
          span -= sent;
        }
        uint32_t room = kWorkBufferSize - filled;
        uint32_t piece = uint32_t(span < room ? span : room);
        if (!volume.Read(offset + done, ctx.work + filled, piece, data)) {
          flush();
          msg->Trace(1, "failed to read device");
          status = ERR_SHORT_IO;
          break;
        }
        filled += piece;
        done += piece;
        data += piece;
        if (filled == kWorkBufferSize && !flush()) {
          msg->Trace(1, "failed to write dump file");
          status = ERR_WRITE_FAILED;
          break;
        }
      }
      lastRead = offset + bytes;
    }
    if (status == QORV_OK && filled && !flush()) {
      msg->Trace(1, "failed to write dump file");
      status = ERR_WRITE_FAILED;
    }
  } while (false);
  msg->EndProgress();
  if (status != QORV_OK) {
    out.Finish();
    return status;
  }

  const char* suffix = "";
  if (verbose) msg->Trace(1, "Try to dump tail of volume. last read 0x%" PRIx64 "\n", lastRead);
  if (fsBytes < ctx.volumeSize && lastRead + kTailMin <= ctx.volumeSize) {
    uint64_t at = ctx.volumeSize > kTailSize ? ctx.volumeSize - kTailSize : 0;
    int64_t got = FileReadAt(ctx.deviceFd, ctx.work, kTailSize, at);
    if (got < int64_t(kTailMin)) {
      if (verbose) msg->Trace(1, "%d: Failed to read last 1024 bytes st 0x%" PRIx64 "\n", int(got), at);
    } else if (!out.Write(ctx.work, uint64_t(got), nullptr)) {
      msg->Trace(1, "failed to backup tail of volume. Not critical. \"%s\"\n", std::strerror(errno));
    } else {
      data += uint64_t(got);
      suffix = " (including tail)";
      if (verbose) msg->Trace(1, "Dumped 0x%x last bytes\n", unsigned(got));
    }
  }
  if (!out.Finish()) {
    msg->Trace(1, "failed to write dump file");
    return ERR_WRITE_FAILED;
  }
  uint64_t imageSize = dataOffset + data;
  SizeGb imageGb = ToGb(imageSize);
  msg->Trace(1, "Dumped %" PRIu64 " bytes of volume (%u%%). Image size %" PRIu64 " bytes%s, (%u.%02u GB)\n", data,
             unsigned(ctx.volumeSize ? data * 100 / ctx.volumeSize : 0), imageSize, suffix, imageGb.whole,
             imageGb.hundredths);
  return QORV_OK;
}

}  // namespace mdsnap
