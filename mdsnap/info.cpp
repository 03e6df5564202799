// The info run: one line naming the file system and the volume's size,
// read from the header and the first stored bytes of an image.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "mdsnap/image_format.h"
#include "mdsnap/run.h"
#include "platform/platform.h"

namespace mdsnap {

int OpenImageForReading(const Options& opt);  // run.cpp

namespace {

// The bytes the tag tests look at: data offset .. data offset + 1088.
constexpr uint32_t kProbe = 1024 + 64;

// Moves a stream from `at` forward to `to`: by seeking when it can, else by
// reading and discarding (an image piped in cannot be positioned).
bool SkipTo(int fd, uint64_t at, uint64_t to) {
  if (api::SeekFile(fd, to)) return true;
  if (errno != ESPIPE) return false;
  char sink[4096];
  while (at < to) {
    uint64_t want = to - at < sizeof sink ? to - at : sizeof sink;
    uint64_t got = ReadUpTo(fd, sink, want);
    if (got == 0) return false;
    at += got;
  }
  return true;
}

const char* Tag(const uint8_t* d, uint64_t have, uint64_t dataOffset, bool namedByPath, const char* name) {
  auto failed = [&](uint64_t offset) {
    std::fprintf(stderr, "failed to read dump file \"%s\" at offset 0x%" PRIx64 ": \"%s\"\n", name, offset,
                 std::strerror(errno));
  };
  if (have < 64) {
    // An image whose stored data cannot be reached was piped in compressed.
    if (!namedByPath) return "compressed";
    failed(dataOffset);
    return "unknown";
  }
  if (std::memcmp(d + 3, "NTFS    ", 8) == 0) return "NTFS";
  if (std::memcmp(d + 3, "ReFS\0\0\0\0", 8) == 0) return "ReFS";
  if (std::memcmp(d + 3, "EXFAT   ", 8) == 0) return "exFAT";
  if (std::memcmp(d + 32, "NXSB", 4) == 0) return "APFS";
  if (have < 82 + 64) {
    failed(dataOffset + 82);
    return "unknown";
  }
  if (std::memcmp(d + 82, "FAT32   ", 8) == 0) return "FAT32";
  if (have < kProbe) {
    failed(dataOffset + 1024);
    return "unknown";
  }
  const uint8_t* s = d + 1024;
  if (s[0] == 'H') return s[1] == '+' ? "HFS+" : s[1] == 'X' ? "HFSX" : "unknown";
  if (s[56] == 0x53 && s[57] == 0xEF) return "ExtFS";
  return "unknown";
}

}  // namespace

int Info(const Options& opt, const char* path) {
  int fd;
  const char* name = path;
  if (path) {
    fd = api::OpenFileForReading(path);
    if (fd < 0) {
      std::fprintf(stderr, "failed to open dump file %s: \"%s\"\n", path, std::strerror(errno));
      return -4;
    }
  } else {
    fd = OpenImageForReading(opt);
    name = fd == api::kStdIn ? "stdin" : opt.imagePath;
    if (fd == api::kStdIn) api::SetBinaryMode(fd);
  }
  auto finish = [fd](int status) {
    if (fd != api::kStdIn) api::CloseFile(fd);
    return status;
  };

  char raw[kHeaderSize];
  if (ReadUpTo(fd, raw, kHeaderSize) != kHeaderSize) {
    std::fprintf(stderr, "failed to read dump file header: %s\n", std::strerror(errno));
    return finish(-5);
  }
  ImageHeader h;
  if (!ParseHeader(raw, &h)) {
    std::fprintf(stderr, "failed to parse dump file header\n");
    return finish(-6);
  }
  uint64_t sectors;
  uint32_t sectorSize;
  if (h.version == 1) {
    // One sector more than the bytes hold, as images of this form always showed.
    sectors = h.byteSize / 512 + 1;
    sectorSize = 512;
  } else {
    sectors = h.sectors;
    sectorSize = EstimateSectorSizeForInfo(h);
  }
  uint64_t dataOffset = DataOffset(h.blockCount);
  static uint8_t probe[kProbe];
  uint64_t have = 0;
  errno = 0;
  if (SkipTo(fd, kHeaderSize, dataOffset)) have = ReadUpTo(fd, probe, kProbe);
  const char* tag = Tag(probe, have, dataOffset, path != nullptr, name);
  std::printf("%s, %" PRIx64 " (%" PRIx64 " x %x), %u.%02u GB\n", tag, sectors * sectorSize, sectors, sectorSize, h.gb,
              h.hundredths);
  if (opt.modeFlags & MODE_VERBOSE) std::printf("DataOffset %" PRIx64 "\n", dataOffset);
  return finish(0);
}

}  // namespace mdsnap
