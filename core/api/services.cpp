// The encoding helpers of the service interfaces. They live beside the
// interfaces, not in the platform layer, because they need no service.
#include "core/api/services.h"

namespace api {

unsigned UnitSize(uint32_t code) {
  switch (code & 0x1F) {
    case 1:
    case 8:
    case 16:
      return 1;
    case 2:
    case 4:
      return 2;
    default:
      return 0;
  }
}

bool IsEmpty(uint32_t code, const void* text) {
  if (!text) return true;
  switch (UnitSize(code)) {
    case 1:
      return *static_cast<const uint8_t*>(text) == 0;
    case 2:
      return *static_cast<const uint16_t*>(text) == 0;
    default:
      return true;
  }
}

}  // namespace api
