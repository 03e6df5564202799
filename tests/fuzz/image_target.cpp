// The image side over the fuzzer's bytes taken as an image: the header
// parse, the info run, and a restore into a growable in-memory file. The
// restore may write no more than the image holds (stored blocks and tail).
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "mdsnap/image_format.h"
#include "mdsnap/options.h"
#include "mdsnap/run.h"
#include "platform/platform.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

int MemFile(const uint8_t* data, size_t size) {
  int fd = ::memfd_create("fuzz", MFD_CLOEXEC);
  if (fd < 0) fuzzsupport::Fail("memfd_create");
  if (size && ::write(fd, data, size) != ssize_t(size)) fuzzsupport::Fail("memfd write");
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

// Bytes the file really holds (its allocated blocks), not its size.
uint64_t Held(int fd) {
  struct stat st {};
  ::fstat(fd, &st);
  return uint64_t(st.st_blocks) * 512;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The info line goes to standard output; only the fuzzer's report matters.
  if (!std::freopen("/dev/null", "w", stdout)) return 1;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size >= mdsnap::kHeaderSize) {
    mdsnap::ImageHeader h;
    if (mdsnap::ParseHeader(reinterpret_cast<const char*>(data), &h)) {
      if (h.blockShift >= 64) fuzzsupport::Fail("parsed a shift of 64 or more");
      mdsnap::EstimateSectorSizeForRestore(h);
      mdsnap::EstimateSectorSizeForInfo(h);
    }
  }

  mdsnap::Options opt;
  int image = MemFile(data, size);
  std::string path = "/proc/self/fd/" + std::to_string(image);
  int info = mdsnap::Info(opt, path.c_str());
  if (info != 0 && info != -4 && info != -5 && info != -6) fuzzsupport::Fail("info status out of its set");

  ::lseek(image, 0, SEEK_SET);
  int target = MemFile(nullptr, 0);
  opt.modeFlags = mdsnap::MODE_CREATE | mdsnap::MODE_SILENT;
  fuzzsupport::CountingMemory mem;
  api::CLibEnv env{&mem, nullptr, nullptr};
  static uint8_t work[mdsnap::kWorkBufferSize];
  uint8_t* bitmap = nullptr;
  mdsnap::RunContext ctx;
  ctx.opt = &opt;
  ctx.deviceName = "fuzz";
  ctx.imageFd = image;
  ctx.deviceFd = target;
  ctx.msg = api::GetConsoleMessage(nullptr, nullptr, true);
  ctx.env = &env;
  ctx.work = work;
  ctx.volumeSize = 0;
  ctx.sectorLog2 = 9;
  ctx.bitmap = &bitmap;
  mdsnap::Restore(ctx);
  mem.Free(bitmap);
  // A stored block smaller than a page still takes a page of the file, and
  // the blocks of a bitmap of b bytes span at most 8 * b blocks: whatever the
  // block size, the file holds at most 256 times the image (and the tail's
  // two pages).
  if (Held(target) > 256 * uint64_t(size) + 2 * 4096) fuzzsupport::Fail("the restore wrote more than the image holds");
  if (mem.live != 0) fuzzsupport::Fail("the restore leaked memory");
  ::close(target);
  ::close(image);
  return 0;
}
