// One scanner over the fuzzer's bytes taken as a volume, read through the
// copy-on-write overlay as a dump does. The volume must never be written, the
// scanner must free all it took, and while it runs it may hold at most its
// bitmap and a fixed slack.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/overlay.h"
#include "fs/scanners.h"
#include "platform/platform.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/support/file_device.h"

#ifndef FUZZ_SCANNER
#error "FUZZ_SCANNER names the scanner entry point"
#endif

namespace QORV {
// The APFS entry takes one more argument: the dump passes no cipher.
inline api::status_t ScanApfsNoCipher(QORV_SCANNER_ARGS) {
  return ScanApfs(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems, 0);
}
}  // namespace QORV

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzsupport::CountingMemory mem;
  api::CLibEnv env{&mem, nullptr, nullptr};
  // Half the inputs take the --verbose paths: every problem's reason is
  // formatted (into a silent sink) from what the volume says.
  env.verbose = size & 1;
  api::IMessage* msg = api::GetConsoleMessage(nullptr, nullptr, true);
  testsupport::MemDevice volume(std::vector<uint8_t>(data, data + size));
  QORV::CRWBlockMemMdSnap overlay(&env, &volume);

  uint32_t flags = 0;
#ifdef FUZZ_FLAGS_FROM_SIZE
  flags = (size >> 1) & (api::SCAN_DATA | api::SCAN_FORK);
#endif
  uint8_t* bitmap = nullptr;
  uint64_t blockCount = 0;
  uint32_t blockShift = 0, problems = 0;
  api::status_t status = QORV::FUZZ_SCANNER(&env, &overlay, msg, flags, &bitmap, &blockCount, &blockShift, &problems);
  overlay.Empty();

  if (volume.writes != 0) fuzzsupport::Fail("the scanner wrote the volume");
  if (status == api::QORV_OK) {
    if (!bitmap) fuzzsupport::Fail("success without a bitmap");
    if (blockShift >= 64) fuzzsupport::Fail("block shift of 64 or more");
  } else if (bitmap) {
    fuzzsupport::Fail("failure left a bitmap behind");
  }
  const uint64_t bitmapBytes = blockCount / 8 + ((blockCount & 7) != 0);
  if (mem.peak > (bitmap ? bitmapBytes : 0) + fuzzsupport::kScanSlack)
    fuzzsupport::Fail("the scan held more than its bitmap and 16 MiB");
  mem.Free(bitmap);
  if (mem.allocations != mem.frees || mem.live != 0) fuzzsupport::Fail("the scanner leaked or double-freed memory");
  return 0;
}
