// The image side over the fuzzer's bytes taken as an image: the header
// parse, the info run, and restores into in-memory files, one growable (as
// with -c) and one of fixed size (as a device). A restore may write no more
// than the image holds, and never past the end of a fixed target.
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

using fuzzsupport::Fail;

int MemFile(const uint8_t* data, size_t size) {
  int fd = ::memfd_create("fuzz", MFD_CLOEXEC);
  if (fd < 0) Fail("memfd_create");
  if (size && ::write(fd, data, size) != ssize_t(size)) Fail("memfd write");
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

constexpr uint64_t kFixedTarget = 1 << 20;

void RestoreInto(int image, size_t size, bool create) {
  ::lseek(image, 0, SEEK_SET);
  int target = MemFile(nullptr, 0);
  if (!create && ::ftruncate(target, off_t(kFixedTarget)) != 0) Fail("memfd resize");
  mdsnap::Options opt;
  opt.modeFlags = mdsnap::MODE_SILENT | (create ? mdsnap::MODE_CREATE : 0);
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
  ctx.volumeSize = create ? 0 : kFixedTarget;
  ctx.sectorLog2 = 9;
  ctx.bitmap = &bitmap;
  mdsnap::Restore(ctx);
  mem.Free(bitmap);
  if (mem.live != 0) Fail("the restore leaked memory");
  // A stored block smaller than a page still takes a page of the file, and
  // the blocks of a bitmap of b bytes span at most 8 * b blocks: whatever the
  // block size, the file holds at most 256 times the image (and the tail's
  // two pages).
  struct stat st {};
  ::fstat(target, &st);
  if (uint64_t(st.st_blocks) * 512 > 256 * uint64_t(size) + 2 * 4096) Fail("the restore wrote more than the image holds");
  if (!create && uint64_t(st.st_size) != kFixedTarget) Fail("the restore wrote past the end of a fixed target");
  ::close(target);
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
      if (h.blockShift >= 64) Fail("parsed a shift of 64 or more");
      mdsnap::EstimateSectorSizeForRestore(h);
      mdsnap::EstimateSectorSizeForInfo(h);
    }
  }

  int image = MemFile(data, size);
  std::string path = "/proc/self/fd/" + std::to_string(image);
  int info = mdsnap::Info(mdsnap::Options(), path.c_str());
  if (info != 0 && info != -4 && info != -5 && info != -6) Fail("info status out of its set");

  // Into a growable file, as "--restore -c" does, and into a fixed target
  // as onto a device: that one must never grow.
  RestoreInto(image, size, true);
  RestoreInto(image, size, false);
  ::close(image);
  return 0;
}
