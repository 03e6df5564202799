// Scanners whose file systems are not supported yet: they never recognise a
// volume, so the dump moves on to the next one.
#include "fs/scanners.h"

namespace QORV {

api::status_t ScanRefs35Minus(QORV_SCANNER_ARGS) { return api::ERR_NOT_RECOGNIZED; }
api::status_t ScanRefs36Plus(QORV_SCANNER_ARGS) { return api::ERR_NOT_RECOGNIZED; }
api::status_t ScanRefs1(QORV_SCANNER_ARGS) { return api::ERR_NOT_RECOGNIZED; }

}  // namespace QORV
