#pragma once

#include <VXC_CRC32.h>
#include <sys/types.h>

#include "store/Layout.h"

namespace vxsched {

// The System V key of the store mutex, derived from its name as the add-in does it.
inline key_t StoreKey() {
    return static_cast<key_t>(VXC_GenerateCRC32(cStoreMutexName));
}

}  // namespace vxsched
