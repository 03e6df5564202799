#include "fs/scanners.h"

namespace QORV {

api::status_t ScanExt(QORV_SCANNER_ARGS) { return api::ERR_NOT_RECOGNIZED; }

}  // namespace QORV
