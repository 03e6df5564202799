// The scanner table and the recognise-and-scan step of the dump.
#pragma once
#include <cstdint>

#include "core/api/scanner.h"
#include "mdsnap/run.h"

namespace mdsnap {

struct ScannerSlot {
  uint32_t bit;
  api::ScannerEntry entry;
  const char* name;  // printed as "Recognized as %s."
};

struct ScanResult {
  uint8_t* bitmap = nullptr;
  uint64_t blockCount = 0;
  uint32_t blockShift = 0;
  uint32_t recognizedBit = 0;
  uint32_t problems = 0;
};

// The scanner of one mask bit, or null when that bit has none.
const ScannerSlot* FindScanner(uint32_t bit);

// Tries the scanners of fsMask's bits, lowest first, each over a fresh
// copy-on-write overlay (or the device itself with SCAN_NO_JOURNAL). With the
// device's descriptor, the overlay reads large ranges straight from it.
api::status_t RecognizeAndScan(uint32_t fsMask, api::CLibEnv* env, api::IDeviceRWBlock* device, api::IMessage* msg,
                               uint32_t scanFlags, ScanResult* out, int deviceFd = -1);

// "--head": the first 20 MiB and the last 1 MiB, by a fixed rule.
api::status_t HeadOnlyBitmap(api::CLibEnv* env, api::IDeviceRWBlock* device, api::IMessage* msg, ScanResult* out);
uint32_t HeadOnlyShift(uint64_t size);
// "-dd": every block; the block shift for a volume of this size.
uint32_t RawShift(uint64_t size);

// The writing half of the dump: header, bitmap, padding, the marked blocks
// and the tail, for a scan result however it was made.
api::status_t WriteImage(RunContext& ctx, const ScanResult& scan);

}  // namespace mdsnap
