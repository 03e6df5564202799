#include "fs/scanners.h"

namespace QORV {

api::status_t ScanExFat(QORV_SCANNER_ARGS) { return api::ERR_NOT_RECOGNIZED; }

}  // namespace QORV
