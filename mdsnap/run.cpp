// The spine of a run: parse, choose the direction, open the image stream,
// the message sink and the volume, then dump, restore or describe.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "mdsnap/run.h"
#include "platform/platform.h"

namespace mdsnap {

using namespace api;

// The image of a restore or info run named by "-f:"; standard input when
// there is none or it cannot be used.
int OpenImageForReading(const Options& opt) {
  if (!opt.imagePath) return kStdIn;
  int regular = PathIsRegularFile(opt.imagePath);
  if (regular < 0) {
    std::fprintf(stderr, "failed to %s file \"%s\" to restore from: %s\n", "stat", opt.imagePath,
                 std::strerror(errno));
    return kStdIn;
  }
  if (!regular) return kStdIn;
  int fd = OpenFileForReading(opt.imagePath);
  if (fd < 0) {
    std::fprintf(stderr, "failed to %s file \"%s\" to restore from: %s\n", "open", opt.imagePath,
                 std::strerror(errno));
    return kStdIn;
  }
  return fd;
}

static int OpenImageForWriting(const Options& opt) {
  if (!opt.imagePath) return kStdOut;
  // Not truncated: an existing longer file keeps its bytes beyond the image.
  int fd = OpenFileForWriting(opt.imagePath);
  if (fd < 0) {
    std::fprintf(stderr, "failed to create file \"%s\" to dump to: %s\n", opt.imagePath, std::strerror(errno));
    return kStdOut;
  }
  return fd;
}

static uint32_t SectorLog2(uint32_t sectorSize) {
  for (uint32_t i = 0; i <= 25; ++i)
    if (sectorSize == (1u << i)) return i;
  return 9;
}

static bool IsBigEndian() {
  const uint16_t probe = 1;
  uint8_t first;
  std::memcpy(&first, &probe, 1);
  return first == 0;
}

int RunMain(int argc, char** argv) {
  if (argc < 1) return -22;
  if (IsBigEndian()) {
    std::fprintf(stderr, "%s\n", "Error: little endian library, big endian platform");
    return -22;
  }
  Options opt;
  const char* device = nullptr;
  switch (ParseCommandLine(argc, argv, &opt, &device)) {
    case ParseResult::ShowVersion:
      PrintVersionBanner();
      return 1;
    case ParseResult::ShowLibraryVersion:
      std::printf("%s\n", LibraryVersionText().c_str());
      return 1;
    case ParseResult::Failed:
      PrintUsage();
      return -22;
    case ParseResult::Ok:
      break;
  }
  if (opt.trace) OpenTraceLog("mdsnap");

  int direction = opt.direction;
  if (direction == DIRECTION_AUTO) direction = StdinIsConsole() ? DIRECTION_DUMP : DIRECTION_RESTORE;
  const bool dump = direction == DIRECTION_DUMP;
  if ((opt.modeFlags & MODE_RAW) && !dump) {
    std::fprintf(stderr, "-dd assumes dump\n");
    return -22;
  }
  if (opt.modeFlags & MODE_INFO) {
    if (device || !dump) return Info(opt, device);
    std::fprintf(stderr, "to get info you should supply dump file\n");
    return -22;
  }
  if (!device) {
    std::fprintf(stderr, "Device is not supplied\n");
    return -22;
  }

  int imageFd = dump ? OpenImageForWriting(opt) : OpenImageForReading(opt);
  // Nothing but image bytes may reach standard output.
  const bool imageOnStdout = dump && imageFd == kStdOut;
  if (imageOnStdout) opt.modeFlags &= ~MODE_VERBOSE;
  FILE* stream = (opt.modeFlags & MODE_SILENT) ? nullptr : imageOnStdout ? stderr : stdout;
  IMessage* msg = GetConsoleMessage(stream, nullptr, opt.modeFlags & MODE_NO_PERCENTS);
  auto closeImage = [imageFd]() {
    if (imageFd != kStdIn && imageFd != kStdOut) CloseFile(imageFd);
  };
  if (imageFd == kStdIn || imageFd == kStdOut) SetBinaryMode(imageFd);

  if (!dump && (opt.modeFlags & MODE_CREATE)) {
    int fd = OpenFileForWriting(device);
    if (fd < 0) {
      std::fprintf(stderr, "failed to create file \"%s\" to restore to: %s\n", device, std::strerror(errno));
      closeImage();
      return -22;
    }
    if (!MarkSparse(fd)) std::fprintf(stderr, "Failed to set new file \"%s\" sparsed\n", device);
    CloseFile(fd);
  }

  const uint32_t verbose = (opt.modeFlags >> 4) & 1;
  IDeviceRWBlock* dev = nullptr;
  int devFd = -1;
  int open = CreateVolumeDevice(device, false, false, &dev, &devFd, true, verbose, opt.blockSize);
  if (open != 0 && dump) {
    // A volume in use, or one we may not write, is still dumped read-only and unlocked.
    open = CreateVolumeDevice(device, true, false, &dev, &devFd, false, verbose, opt.blockSize);
  } else if (open == 0 && dump && (opt.scanFlags & SCAN_NO_JOURNAL)) {
    MakeReadOnly(dev);
  }
  if (open != 0) {
    closeImage();
    // An errno is negated; the write-protected status travels as it is.
    return open == int(ERR_WRITE_PROTECTED) ? open : -open;
  }

  static CLibEnv env{GetMemoryManager(), GetStringManager(), GetTime()};
  env.verbose = opt.modeFlags & MODE_VERBOSE;
  uint8_t* bitmap = nullptr;
  RunContext ctx;
  ctx.opt = &opt;
  ctx.deviceName = device;
  ctx.imageFd = imageFd;
  ctx.device = dev;
  ctx.deviceFd = devFd;
  ctx.msg = msg;
  ctx.env = &env;
  ctx.sectorLog2 = SectorLog2(dev->GetSectorSize());
  ctx.volumeSize = dev->GetSize();
  ctx.bitmap = &bitmap;
  int status;
  ctx.work = static_cast<uint8_t*>(env.mem->Allocate(kWorkBufferSize, 0));
  if (!ctx.work) {
    status = int(ERR_NO_MEMORY);
  } else {
    status = int(dump ? Dump(ctx) : Restore(ctx));
  }
  env.mem->Free(bitmap);
  env.mem->Free(ctx.work);
  delete dev;
  closeImage();
  return status;
}

}  // namespace mdsnap
