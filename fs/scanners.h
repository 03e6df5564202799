// Scanner entry points, one per file system, all of the api::ScannerEntry
// shape. The dump's scanner table lists them by file-system mask bit.
#pragma once
#include "core/api/scanner.h"

#define QORV_SCANNER_ARGS                                                                               \
  api::CLibEnv *env, api::IDeviceRWBlock *dev, api::IMessage *msg, uint32_t scanFlags, uint8_t **bitmap, \
      uint64_t *blockCount, uint32_t *blockShift, uint32_t *problems

namespace QORV {

api::status_t ScanNtfs(QORV_SCANNER_ARGS);
api::status_t ScanFat(QORV_SCANNER_ARGS);
api::status_t ScanExFat(QORV_SCANNER_ARGS);
api::status_t ScanHfs(QORV_SCANNER_ARGS);
api::status_t ScanExt(QORV_SCANNER_ARGS);
api::status_t ScanRefs35Minus(QORV_SCANNER_ARGS);
api::status_t ScanRefs36Plus(QORV_SCANNER_ARGS);
api::status_t ScanRefs1(QORV_SCANNER_ARGS);
api::status_t ScanBtrfs(QORV_SCANNER_ARGS);
// cipherAvailable: whether encrypted volumes can be read (the dump passes 0).
api::status_t ScanApfs(QORV_SCANNER_ARGS, uint32_t cipherAvailable);

}  // namespace QORV
