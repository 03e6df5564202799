// The two ways a scan is cut short from outside: the device vanishing at
// any read, and a stop request at the first poll. Both must end the scan
// with their own status and hand back no bitmap, on every scanner.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "core/api/scanner.h"
#include "tests/support/file_device.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"

namespace testsupport {

// A read-only file device that vanishes after a number of reads.
class VanishingDevice : public FileDevice {
 public:
  VanishingDevice(const std::string& path, uint64_t goodReads) : FileDevice(path), left_(goodReads) {}
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    if (left_ == 0) return api::ERR_DEVICE_GONE;
    --left_;
    return FileDevice::ReadBytes(off, buf, n, flags);
  }

 private:
  uint64_t left_;
};

// Cuts the device off after every number of reads from `firstCut` (the
// reads recognition needs) to the last read of a full scan of `path`.
inline void ExpectInterruptionsEndTheScan(api::ScannerEntry entry, const std::string& path, uint64_t firstCut) {
  FileDevice counter(path);
  ASSERT_TRUE(counter.ok()) << path;
  ASSERT_EQ(RunScanner(entry, &counter, nullptr, 0).status, api::QORV_OK);
  ASSERT_GT(counter.reads, firstCut);
  for (uint64_t reads = firstCut; reads < counter.reads; ++reads) {
    VanishingDevice dev(path, reads);
    ScanResult r = RunScanner(entry, &dev, nullptr, 0);
    EXPECT_EQ(r.status, api::ERR_DEVICE_GONE) << "after " << reads << " of " << counter.reads << " reads";
    EXPECT_TRUE(r.bitmapNull);
  }
  FileDevice dev(path);
  RecordingMessage msg;
  msg.stop = 1;
  ScanResult r = RunScanner(entry, &dev, &msg, 0);
  EXPECT_EQ(r.status, api::ERR_TOO_BIG) << "a stop request";
  EXPECT_TRUE(r.bitmapNull);
}

}  // namespace testsupport
