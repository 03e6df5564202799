// The scanner contract: how the dump calls a file-system scanner and what
// the scanner hands back.
#pragma once
#include <cstdint>

#include "core/api/device.h"
#include "core/api/message.h"
#include "core/api/services.h"
#include "core/api/status.h"

namespace api {

// Scan flags, passed unchanged from the command line to every scanner.
constexpr uint32_t SCAN_DATA = 0x1;        // "-data"
constexpr uint32_t SCAN_FORK = 0x2;        // "-fork"
constexpr uint32_t SCAN_HEAD_ONLY = 0x4;   // "--head"
constexpr uint32_t SCAN_NO_JOURNAL = 0x8;  // "-nojnl"

// File-system mask bits, one per scanner-table slot.
constexpr uint32_t FS_NTFS = 0x2;
constexpr uint32_t FS_FAT_OTHER = 0x4;
constexpr uint32_t FS_FAT = 0x8;
constexpr uint32_t FS_EXFAT = 0x10;
constexpr uint32_t FS_HFS = 0x20;
constexpr uint32_t FS_EXT = 0x40;
constexpr uint32_t FS_REFS3_OLD = 0x800;
constexpr uint32_t FS_REFS3_NEW = 0x1000;
constexpr uint32_t FS_REFS1 = 0x4000;
constexpr uint32_t FS_BTRFS = 0x8000;
constexpr uint32_t FS_APFS = 0x10000;

// The process-wide library environment: the services of the platform layer,
// handed unchanged to the overlay device, the scanners and their drivers.
struct CLibEnv {
  IBaseMemoryManager* mem;
  IBaseStringManager* str;
  ITime* time;
  // "--verbose": scanners print the reason of each problem they tolerate.
  bool verbose = false;
};

// A scanner recognises its file system on `dev` and, when it does, allocates
// the used-block bitmap through env->mem (zero-filled, (N + 7) / 8 bytes),
// marks the blocks to keep and returns QORV_OK with *bitmap, *blockCount (N),
// *blockShift (K) and *problems filled. ERR_NOT_RECOGNIZED passes the turn to
// the next scanner; any other status ends the dump. On failure the scanner
// frees its bitmap and leaves *bitmap null. `msg` may be null.
using ScannerEntry = status_t (*)(CLibEnv* env, IDeviceRWBlock* dev, IMessage* msg, uint32_t scanFlags,
                                  uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                                  uint32_t* problems);

}  // namespace api
