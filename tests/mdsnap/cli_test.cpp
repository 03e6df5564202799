// End-to-end runs of the mdsnap binary: raw and head-only dumps, restores,
// info, pipes, and the failures a user meets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "mdsnap/image_format.h"
#include "mdsnap/scan_table.h"
#include "tests/support/cli.h"
#include "tests/support/recording_message.h"
#include "tests/support/test_env.h"

using namespace testsupport;

namespace {

constexpr int kUsage = 234;  // -22
constexpr int kNotRecognized = 0x06;
constexpr int kIoRange = 0x01;
constexpr int kShortIo = 0x0C;

mdsnap::ImageHeader HeaderOf(const std::string& image) {
  std::string bytes = ReadFile(image);
  mdsnap::ImageHeader h;
  EXPECT_GE(bytes.size(), 64u);
  if (bytes.size() >= 64) {
    EXPECT_TRUE(mdsnap::ParseHeader(bytes.data(), &h));
  }
  return h;
}

uint64_t AllocatedBytes(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? uint64_t(st.st_blocks) * 512 : 0;
}

std::string Random(uint64_t size, uint32_t seed) {
  std::string bytes(size, '\0');
  for (uint64_t i = 0; i < size; ++i) {
    seed ^= seed << 13;
    seed ^= seed >> 17;
    seed ^= seed << 5;
    bytes[i] = char(seed | 1);  // never zero: nothing can pass for a hole
  }
  return bytes;
}

// A file of `size` such bytes (no file system).
std::string MakeVolume(const TempDir& dir, const std::string& name, uint64_t size) {
  WriteFile(dir / name, Random(size, 2463534242u));
  return dir / name;
}

// 4 MiB, stored by -dd as four 1 MiB blocks: data in [0, 1 MiB) and
// [3 MiB, 3.5 MiB), zeros elsewhere, so the image ends in zeros.
constexpr uint64_t kMiB = 1 << 20;
std::string ZeroRunVolume() {
  std::string v(4 * kMiB, '\0');
  v.replace(0, kMiB, Random(kMiB, 7));
  v.replace(3 * kMiB, kMiB / 2, Random(kMiB / 2, 11));
  return v;
}

// A shell prefix that caps the run's address space (400 MB), so a hostile
// header that makes the restore allocate what it claims fails visibly. The
// sanitizer's shadow memory cannot live under a cap.
std::string MemoryCap() {
#ifdef __SANITIZE_ADDRESS__
  return "";
#else
  return "ulimit -v 400000; ";
#endif
}

}  // namespace

TEST(Cli, UsageHelpAndVersions) {
  TempDir dir;
  RunResult none = Sh(dir, "MDSNAP");
  EXPECT_EQ(none.status, kUsage);
  EXPECT_EQ(none.out.rfind("Dump/Restore NTFS/HFS+/ExFAT/FAT/Ext/ReFS/APFS volumes (metadata only)\nUsage: mdsnap", 0),
            0u);
  EXPECT_NE(none.out.find("E.g. mdsnap \\\\?\\Volume{d7c5ce70-3220-11db-b0fb-005056c00008} < dump\n"),
            std::string::npos);
  EXPECT_EQ(none.err, "");
  RunResult help = Sh(dir, "MDSNAP --help");
  EXPECT_EQ(help.status, kUsage);
  EXPECT_EQ(help.out, none.out);
  RunResult version = Sh(dir, "MDSNAP --version");
  EXPECT_EQ(version.status, 1);
  EXPECT_EQ(version.out.rfind("mdsnap (", 0), 0u);
  EXPECT_NE(version.out.find(")\nQORV\n"), std::string::npos);
  RunResult lib = Sh(dir, "MDSNAP --qorvversion");
  EXPECT_EQ(lib.status, 1);
  EXPECT_EQ(lib.out.rfind("QORV version 12.00 (", 0), 0u);
}

TEST(Cli, ArgumentErrorsModeRulesAndUnrecognisedVolumes) {
  TempDir dir;
  RunResult ddRestore = Sh(dir, "MDSNAP --dump -dd --restore x");
  EXPECT_EQ(ddRestore.status, kUsage);
  EXPECT_EQ(ddRestore.err, "-dd assumes dump\n");
  // Redirected standard input means restore, so -dd is refused there too.
  RunResult ddPiped = Sh(dir, "echo | MDSNAP -dd x");
  EXPECT_EQ(ddPiped.err, "-dd assumes dump\n");
  RunResult noImage = Sh(dir, "MDSNAP --dump -info");
  EXPECT_EQ(noImage.status, kUsage);
  EXPECT_EQ(noImage.err, "to get info you should supply dump file\n");
  RunResult noDevice = Sh(dir, "MDSNAP --dump -f:x.mds");
  EXPECT_EQ(noDevice.status, kUsage);
  EXPECT_EQ(noDevice.err, "Device is not supplied\n");
  RunResult missing = Sh(dir, "MDSNAP --dump -f:x.mds /nonexistent/volume");
  EXPECT_EQ(missing.status, 256 - 2);  // the open's errno, negated
  EXPECT_NE(missing.err.find("Can't open \"/nonexistent/volume\" : No such file or directory\n"), std::string::npos);
  // Noise is no file system: the run suggests --head.
  MakeVolume(dir, "noise.img", 3 << 20);
  RunResult r = Sh(dir, "MDSNAP --dump --nopercents -f:img.mds noise.img");
  EXPECT_EQ(r.status, kNotRecognized);
  EXPECT_NE(r.out.find("mdsnap: failed to recognize filesystem from ffffffff\nQORV version 12.00"), std::string::npos);
  EXPECT_NE(r.out.find("Couldn't recognize FS, try '--head' option to capture only header/tail of volume.\n"),
            std::string::npos);
}

// -dd at odd sizes, through pipes both ways: the image's exact bytes on
// standard output (header text, a bitmap of ones even past N, zero padding,
// the blocks, the tail where a whole sector lies past them) with the messages
// on standard error; its -info line; and a restore from standard input, byte
// for byte up to the last whole sector.
TEST(Cli, RawImageBytesAndRestoreAtOddSizes) {
  // A multiple of 1 MiB (K = 20), of 512 but not 1024 (K = 10, last half
  // block through the tail), not even of 512, less than two sectors.
  for (uint64_t size : {uint64_t(2) << 20, (uint64_t(1) << 20) + 512, uint64_t(300000), uint64_t(700)}) {
    SCOPED_TRACE(size);
    TempDir dir;
    const std::string vol = ReadFile(MakeVolume(dir, "vol.img", size));
    RunResult d = Sh(dir, "MDSNAP --dump -dd --nopercents vol.img > img.mds");
    ASSERT_EQ(d.status, 0) << d.err;
    const uint32_t k = size % kMiB == 0 ? 20 : size % 1024 == 512 ? 10 : 9;
    const uint64_t n = size >> k, stored = n << k;
    const uint64_t tail = stored + 512 <= size ? std::min<uint64_t>(size, 1024) : 0;
    char text[64];
    std::snprintf(text, sizeof text, "V: %llx, 0.00 Gb, C: %llx x %x, w: vol.img", (unsigned long long)(size >> 9),
                  (unsigned long long)n, k);
    std::string want(text);
    want.resize(64, '\0');
    want += std::string((n + 7) / 8, '\xFF');
    want.resize(mdsnap::DataOffset(n), '\0');
    want += vol.substr(0, stored) + vol.substr(size - tail);
    EXPECT_TRUE(ReadFile(dir / "img.mds") == want);
    EXPECT_NE(d.err.find(tail ? " (including tail), (" : " bytes, (0.00 GB)"), std::string::npos) << d.err;
    std::snprintf(text, sizeof text, "unknown, %llx (%llx x 200), 0.00 GB\n", (unsigned long long)(size >> 9 << 9),
                  (unsigned long long)(size >> 9));
    EXPECT_EQ(Sh(dir, "cat img.mds | MDSNAP -info").out, text);
    // No --restore, on purpose: a redirected standard input means restore.
    RunResult r = Sh(dir, "MDSNAP -c --nopercents out.img < img.mds");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // The header counts whole sectors: a partial last sector is not restored.
    EXPECT_TRUE(ReadFile(dir / "out.img") == vol.substr(0, (size >> 9) << 9));
  }
}

// A scanner may count more blocks than a restore accepts (exFAT's heap in
// 512-byte blocks can); the dump refuses that result itself and writes
// nothing. The one-byte bitmap would be overrun by any attempt to go on.
TEST(Dump, ScanResultBeyond32BitsIsRefusedBeforeWriting) {
  TempDir dir;
  std::string image = dir / "img.mds";
  int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  testsupport::TestEnv t;
  testsupport::RecordingMessage msg;
  mdsnap::Options opt;
  std::vector<uint8_t> work(mdsnap::kWorkBufferSize);
  uint8_t bitmap = 0xFF;
  mdsnap::RunContext ctx;
  ctx.opt = &opt;
  ctx.deviceName = "vol.img";
  ctx.imageFd = fd;
  ctx.msg = &msg;
  ctx.env = &t.env;
  ctx.work = work.data();
  ctx.volumeSize = uint64_t(1) << 42;
  mdsnap::ScanResult scan;
  scan.bitmap = &bitmap;
  scan.blockCount = uint64_t(1) << 32;
  scan.blockShift = 9;
  EXPECT_EQ(mdsnap::WriteImage(ctx, scan), api::ERR_TOO_BIG);
  ::close(fd);
  EXPECT_EQ(msg.lines, std::vector<std::string>{"1:Volume is too big to dump it"});
  EXPECT_EQ(FileSize(image), 0u);
}

TEST(Cli, HeadOnlyOnBoundarySizes) {
  TempDir dir;
  // Exactly 1 GiB, sparse: 20 MiB head and 1 MiB tail in 1 MiB blocks.
  std::string big = dir / "big.img";
  WriteFile(big, "");
  ASSERT_EQ(::truncate(big.c_str(), 1 << 30), 0);
  RunResult d = Sh(dir, "MDSNAP --dump --head --nopercents -f:big.mds big.img");
  ASSERT_EQ(d.status, 0) << d.out << d.err;
  EXPECT_NE(d.out.find("Dump first 20M and last 1M.\n"), std::string::npos);
  mdsnap::ImageHeader h = HeaderOf(dir / "big.mds");
  EXPECT_EQ(h.blockShift, 20u);
  EXPECT_EQ(h.blockCount, 1024u);
  EXPECT_EQ(h.gb, 1u);
  EXPECT_EQ(h.hundredths, 0u);
  EXPECT_EQ(FileSize(dir / "big.mds"), 4096u + (21u << 20));

  // Smaller than 1 MiB: only the head range, which is the whole volume.
  std::string small = MakeVolume(dir, "small.img", 700 * 1024);
  ASSERT_EQ(Sh(dir, "MDSNAP --dump --head --nopercents -f:small.mds small.img").status, 0);
  mdsnap::ImageHeader s = HeaderOf(dir / "small.mds");
  EXPECT_EQ(s.blockCount << s.blockShift, 700u * 1024);
  ASSERT_EQ(Sh(dir, "MDSNAP --restore -c --nopercents -f:small.mds small.out").status, 0);
  EXPECT_TRUE(ReadFile(dir / "small.out") == ReadFile(small));
}

// Into a regular file, zero blocks become holes only where no older bytes of
// the file lie; every byte reads back as written, and a pipe gets them all.
TEST(Cli, SparseImagesAndRestoredFiles) {
  TempDir dir;
  const std::string vol = ZeroRunVolume();
  WriteFile(dir / "vol.img", vol);
  // Half of the volume's zeros are written, half are holes of the file.
  int fd = ::open((dir / "vol.img").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  const int punch = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
  bool holes = ::fallocate(fd, punch, 2 * kMiB, kMiB) == 0 && ::fallocate(fd, punch, 3 * kMiB + kMiB / 2, kMiB / 2) == 0;
  ::close(fd);
  if (!holes) GTEST_SKIP() << "this file system cannot punch holes";
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent vol.img | cat > piped.mds").status, 0);
  const std::string image = ReadFile(dir / "piped.mds");
  ASSERT_EQ(image.size(), 4096 + 4 * kMiB);
  EXPECT_TRUE(image.substr(4096) == vol);
  const uint64_t nonZero = 4096 + kMiB + kMiB / 2;  // header page and the two data ranges
  // New file: ends in a hole, still at its full size.
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent -f:new.mds vol.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "new.mds") == image);
  EXPECT_EQ(AllocatedBytes(dir / "new.mds"), nonZero);
  // Standard output redirected to a file is as sparse; appended to, it gets every byte.
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent vol.img > out.mds").status, 0);
  EXPECT_EQ(AllocatedBytes(dir / "out.mds"), nonZero);
  const std::string old = Random(6 * kMiB, 3);
  WriteFile(dir / "append.mds", old.substr(0, 1000));
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent vol.img >> append.mds").status, 0);
  EXPECT_TRUE(ReadFile(dir / "append.mds") == old.substr(0, 1000) + image);
  // An existing longer file is not cut: its old bytes stay past the image and
  // none shows through the image's zeros.
  WriteFile(dir / "long.mds", old);
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent -f:long.mds vol.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "long.mds") == image + old.substr(image.size()));
  EXPECT_EQ(AllocatedBytes(dir / "long.mds"), old.size());
  // An existing shorter file: holes only past its old (unaligned) end.
  const uint64_t shortSize = kMiB + kMiB / 2 + 100, shortEnd = kMiB + kMiB / 2 + 4096;
  WriteFile(dir / "short.mds", old.substr(0, shortSize));
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent -f:short.mds vol.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "short.mds") == image);
  EXPECT_EQ(AllocatedBytes(dir / "short.mds"), shortEnd + kMiB / 2);

  // Restores: a file -c creates, an existing longer one (cut to the volume,
  // zeros written over its bytes), an existing shorter one, and one of the
  // same size without -c, where nothing is left out.
  const std::string restore = "MDSNAP --restore --silent -f:new.mds ";
  ASSERT_EQ(Sh(dir, restore + "-c made.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "made.img") == vol);
  EXPECT_EQ(AllocatedBytes(dir / "made.img"), kMiB + kMiB / 2);
  WriteFile(dir / "longer.img", old);
  ASSERT_EQ(Sh(dir, restore + "-c longer.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "longer.img") == vol);
  EXPECT_EQ(AllocatedBytes(dir / "longer.img"), vol.size());
  WriteFile(dir / "shorter.img", old.substr(0, shortSize));
  ASSERT_EQ(Sh(dir, restore + "-c shorter.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "shorter.img") == vol);
  EXPECT_EQ(AllocatedBytes(dir / "shorter.img"), shortEnd + kMiB / 2);
  WriteFile(dir / "same.img", old.substr(0, vol.size()));
  ASSERT_EQ(Sh(dir, restore + "same.img").status, 0);
  EXPECT_TRUE(ReadFile(dir / "same.img") == vol);
  EXPECT_EQ(AllocatedBytes(dir / "same.img"), vol.size());
}

// The header's sector count is in the source device's sectors; with 4096-byte
// sectors on a small volume the restore's estimate falls to a few MiB, far
// below the stored blocks. The last MiB lies outside the file system and
// ends in a marked tail, which the dump stores after the blocks.
TEST(Cli, RestoreTargetsHoldEveryStoredBlockAndTheTail) {
  if (!HaveTool("mke2fs")) GTEST_SKIP() << "mke2fs not installed";
  TempDir dir;
  std::string vol = dir / "vol.img";
  ASSERT_EQ(Sh(dir, "truncate -s 20M vol.img && mke2fs -q -F -t ext4 -b 4096 vol.img 19M").status, 0);
  std::string marker(1024, '\0');
  for (size_t i = 0; i < marker.size(); ++i) marker[i] = char('a' + i % 26);
  {
    std::fstream f(vol, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp((20 << 20) - 1024);
    f.write(marker.data(), std::streamsize(marker.size()));
  }
  RunResult d = Sh(dir, "MDSNAP --dump -b:4096 --nopercents -f:img.mds vol.img");
  ASSERT_EQ(d.status, 0) << d.out << d.err;
  mdsnap::ImageHeader h = HeaderOf(dir / "img.mds");
  ASSERT_EQ(h.blockCount << h.blockShift, 19u << 20);
  ASSERT_EQ(h.sectors * mdsnap::EstimateSectorSizeForRestore(h), 0x280000u);  // the estimate: 512-byte sectors
  size_t at = d.out.find("Dumped ");
  ASSERT_NE(at, std::string::npos);
  const std::string stored = d.out.substr(at + 7, d.out.find(' ', at + 7) - at - 7);
  ASSERT_NE(d.out.find("(including tail)"), std::string::npos) << d.out;
  // Where the last stored block ends, read from the image's bitmap.
  const std::string img = ReadFile(dir / "img.mds");
  uint64_t lastEnd = 0;
  for (uint64_t b = 0; b < h.blockCount; ++b)
    if ((uint8_t(img[64 + b / 8]) >> (b % 8)) & 1) lastEnd = (b + 1) << h.blockShift;
  ASSERT_GT(lastEnd, 0x280000u);

  // -c: the file holds every block and, past them, the tail.
  RunResult c = Sh(dir, "MDSNAP --restore -c --nopercents -f:img.mds out.img");
  ASSERT_EQ(c.status, 0) << c.out << c.err;
  EXPECT_NE(c.out.find("Restored " + stored + " bytes (including tail), ("), std::string::npos) << c.out;
  ASSERT_EQ(FileSize(dir / "out.img"), (19u << 20) + 1024);
  EXPECT_TRUE(ReadFile(dir / "out.img").substr(19 << 20) == marker);
  if (HaveTool("e2fsck")) {
    RunResult fsck = Sh(dir, "e2fsck -fn out.img");
    EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
  }

  // Fixed targets: shorter than the header's volume or than the last stored
  // block, refused with that size before anything is written; holding the
  // blocks but no room for the tail, failed after them.
  for (uint64_t size : {uint64_t(1) << 20, uint64_t(0x280000), uint64_t(19) << 20}) {
    std::string target = MakeVolume(dir, "fixed.img", size);
    const std::string before = ReadFile(target);
    RunResult r = Sh(dir, "MDSNAP --restore --nopercents -f:img.mds fixed.img");
    EXPECT_EQ(r.status, kIoRange) << size;
    char want[128];
    std::snprintf(want, sizeof want, "WARNING: mdsnap's volume size in bytes 0x%x > 0x%x - size of \"fixed.img\"\n",
                  size == (1u << 20) ? 0x280000 : size == 0x280000 ? unsigned(lastEnd) : (19u << 20) + 1024,
                  unsigned(size));
    EXPECT_NE(r.err.find(want), std::string::npos) << size << r.err;
    EXPECT_EQ(FileSize(target), size);
    if (size != (19u << 20)) {
      EXPECT_TRUE(ReadFile(target) == before);
    }
  }
  // A larger device warns and takes the blocks at their offsets and the tail
  // at its own end.
  RunResult large = Sh(dir, "truncate -s 21M large.img && MDSNAP --restore --nopercents -f:img.mds large.img");
  ASSERT_EQ(large.status, 0) << large.err;
  EXPECT_NE(large.out.find("WARNING: mdsnap's volume size 0x280000 bytes < \"large.img\" size 0x1500000 bytes\n"),
            std::string::npos)
      << large.out;
  std::string largeBytes = ReadFile(dir / "large.img");
  ASSERT_EQ(largeBytes.size(), 21u << 20);
  EXPECT_TRUE(largeBytes.substr((21 << 20) - 1024) == marker);
  EXPECT_TRUE(largeBytes.substr(0, 19 << 20) == ReadFile(dir / "out.img").substr(0, 19 << 20));
}

TEST(Cli, CorruptAndHostileHeaders) {
  TempDir dir;
  MakeVolume(dir, "vol.img", 1 << 20);
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --nopercents -f:img.mds vol.img").status, 0);
  std::string bad = ReadFile(dir / "img.mds");
  std::memcpy(&bad[0], "garbage header!", 15);
  WriteFile(dir / "bad.mds", bad);
  RunResult r = Sh(dir, "MDSNAP --restore -c --nopercents -f:bad.mds out.img");
  EXPECT_EQ(r.status, kIoRange);
  EXPECT_NE(r.err.find("failed to parse dump file header\n"), std::string::npos);
  EXPECT_EQ(Sh(dir, "MDSNAP -info bad.mds").status, 256 - 6);
  EXPECT_EQ(Sh(dir, "MDSNAP -info nothere.mds").status, 256 - 4);  // a short header is the cut images' case
  // Hostile headers fail with their message before the bitmap is allocated
  // (the memory cap makes a 512 MiB bitmap fail) and before anything is
  // written: the target keeps its bytes and its size.
  const std::string cap = MemoryCap();
  struct Hostile {
    const char* header;
    uint8_t bitmap;
    const char* options;
    int status;
    const char* message;
  } hostile[] = {
      {"V: 800, 0.00 Gb, C: 100000000 x 9", 0, "-c", 0x28, "Volume is too big to restore in 32 bit OS\n"},
      {"V: 800, 0.00 Gb, C: ffffffff x 9", 0, "-c", kShortIo, "failed to read dump file bitmap"},
      // N << K beyond 64 bits.
      {"V: 800, 0.00 Gb, C: 10 x 3f", 0, "", kIoRange,
       "WARNING: mdsnap's volume size in bytes 0xffffffffffffffff > 0x100000 - size of \"t.img\"\n"},
      {"V: 800, 0.00 Gb, C: 10 x 3f", 0, "-c", kIoRange,
       "WARNING: mdsnap's volume size in bytes 0xffffffffffffffff > 0x100000 - size of \"t.img\"\n"},
      // One block of 1 TiB that never arrives does not grow the file.
      {"V: 800, 0.00 Gb, C: 1 x 28", 1, "-c", kShortIo, "failed to read dump file data"},
  };
  for (const Hostile& c : hostile) {
    std::string image(4096, '\0');
    image.replace(0, std::strlen(c.header), c.header);
    image[64] = char(c.bitmap);
    WriteFile(dir / "hostile.mds", image);
    std::string target = MakeVolume(dir, "t.img", 1 << 20);
    const std::string before = ReadFile(target);
    RunResult r = Sh(dir, cap + "MDSNAP --restore --nopercents " + c.options + " -f:hostile.mds t.img");
    EXPECT_EQ(r.status, c.status) << c.header << c.options << r.out << r.err;
    EXPECT_NE((r.out + r.err).find(c.message), std::string::npos) << c.header << c.options << r.out << r.err;
    EXPECT_TRUE(ReadFile(target) == before) << c.header << c.options;
  }
}

// An image cut anywhere, or with any one header or bitmap byte damaged, ends
// with a documented status and message whether it comes from a file or
// through a pipe; nothing crashes.
TEST(Cli, DamagedImagesFromFilesAndPipesEndTheSameWay) {
  TempDir dir;
  MakeVolume(dir, "vol.img", 3 * kMiB + 512);
  ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --nopercents -f:img.mds vol.img").status, 0);
  const std::string img = ReadFile(dir / "img.mds");
  // Header, a bitmap of 3072 bits (1 KiB blocks), padding, 3 MiB of blocks, tail.
  const size_t bitmapEnd = 64 + 3072 / 8, data = 4096, end = data + 3 * kMiB;
  ASSERT_EQ(img.size(), end + 1024);
  ASSERT_EQ(HeaderOf(dir / "img.mds").blockShift, 10u);
  const size_t cuts[] = {0, 1, 63, 64, 65, bitmapEnd - 1, bitmapEnd, 2048, data - 1, data, data + 1, data + kMiB,
                         end - 1, end, end + 511, end + 512, end + 1023};
  for (size_t cut : cuts) {
    WriteFile(dir / "cut.mds", img.substr(0, cut));
    RunResult file = Sh(dir, "rm -f out.img; MDSNAP --restore -c --verbose --nopercents -f:cut.mds out.img");
    RunResult pipe = Sh(dir, "rm -f out.img; cat cut.mds | MDSNAP --restore -c --verbose --nopercents out.img");
    EXPECT_EQ(file.status, pipe.status) << cut;
    EXPECT_EQ(file.err, pipe.err) << cut;
    EXPECT_EQ(file.status, cut >= end ? 0 : kShortIo) << cut << file.err;  // the tail is optional
    const char* message = cut < 64          ? "failed to read dump file header"
                          : cut < bitmapEnd ? "failed to read dump file bitmap"
                          : cut < data      ? "failed to read aligned tail from dump file"
                                            : "failed to read dump file data";
    if (cut <= end) {  // without its tail the image still restores, and says what it lacks
      EXPECT_NE((file.out + file.err).find(cut == end ? "0: Failed to read last 1024 bytes of image at 0x" : message),
                std::string::npos) << cut << file.out << file.err;
    }
    RunResult info = Sh(dir, "cat cut.mds | MDSNAP -info");
    EXPECT_EQ(info.status, cut < 64 ? 256 - 5 : 0) << cut << info.out << info.err;
  }
  // One bit flipped in each header byte and in the bitmap.
  const int defined[] = {0, kIoRange, kShortIo, 0x28, 256 - 5, 256 - 6};
  for (size_t at = 0; at <= 64; ++at) {
    std::string bad = img;
    bad[at] = char(bad[at] ^ (1 << (at % 8)));
    WriteFile(dir / "bad.mds", bad);
    for (const char* run : {"cat bad.mds | MDSNAP --restore -c --nopercents out.img", "cat bad.mds | MDSNAP -info"}) {
      RunResult r = Sh(dir, MemoryCap() + run);
      EXPECT_NE(std::find(std::begin(defined), std::end(defined), r.status), std::end(defined))
          << at << " " << run << " " << r.status << r.out << r.err;
      if (r.status != 0) {
        EXPECT_FALSE((r.out + r.err).empty()) << at << " " << run;
      }
      EXPECT_EQ((r.out + r.err).find("runtime error"), std::string::npos) << at << r.err;
    }
    ::unlink((dir / "out.img").c_str());
  }
}

TEST(Cli, InfoNamesTheFileSystemOfSampleVolumes) {
  struct Sample {
    const char* fixture;
    const char* tag;
  } samples[] = {
      {"fat/fat32_winxp_label.img.zst", "FAT32"},    {"exfat/exfat_win_512b_cluster.img.zst", "exFAT"},
      {"ext/ext3_2003_dftt_1k.img.zst", "ExtFS"},    {"ntfs/ntfs_winxp_ru_10m.img.zst", "NTFS"},
      {"hfsplus/hfsplus_dfvfs_small.img.zst", "HFS+"}, {"hfsx/hfsx_case_sensitive_hdiutil.img.zst", "HFSX"},
      {"apfs/apfs_dfvfs_small.img.zst", "APFS"},
  };
  for (const Sample& s : samples) {
    TempDir dir;
    std::string vol = Fixture(dir, s.fixture);
    if (vol.empty()) GTEST_SKIP() << "sample volumes or zstd not available: " << s.fixture;
    ASSERT_EQ(Sh(dir, "MDSNAP --dump -dd --silent -f:img.mds '" + vol + "'").status, 0) << s.fixture;
    RunResult info = Sh(dir, "MDSNAP -info img.mds");
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(info.out.substr(0, info.out.find(',')), s.tag) << info.out;
    RunResult piped = Sh(dir, "MDSNAP -info < img.mds");
    EXPECT_EQ(piped.out, info.out);
    if (std::string(s.tag) == "exFAT") {  // no -data there: the run says so and ends with its status
      RunResult data = Sh(dir, "MDSNAP --dump --nopercents -data -f:data.mds '" + vol + "'");
      EXPECT_EQ(data.status, 0x24);
      EXPECT_NE(data.out.find("Exfat support \"-data\" option is not implemented yet.\n"), std::string::npos) << data.out;
    }
  }
}

TEST(Cli, InterruptStopsALongDumpWithTooBig) {
  TempDir dir;
  std::string big = dir / "big.img";
  WriteFile(big, "");
  // Sparse: nothing on disk, but a pipe takes every one of its zero bytes.
  ASSERT_EQ(::truncate(big.c_str(), 64ll << 30), 0);
  RunResult r = Sh(dir, "MDSNAP --dump -dd --nopercents big.img > >(cat > /dev/null) & pid=$!; sleep 1; "
                        "kill -INT $pid; wait $pid");
  EXPECT_EQ(r.status, 0x28) << r.out << r.err;
}
