#pragma once

// The Star Rail VRS module's trace lines: debug priority, written only while the module's
// "vendor.zogl.hkrpg.vrs.debug" property is on, whatever the layer's own debug switch says.

#include <cstdint>
#include <type_traits>

#include "settings/zovk_log.h"

#define ZOVK_VRS_TRACE(enabled, ...)                         \
    do {                                                     \
        if (enabled) ZOVK_LOG(DEBUG, ZOVK_LOG_TAG, __VA_ARGS__); \
    } while (0)

namespace vulkan::zovk::app::module {

// A handle as the number the trace lines print (%llu): pointers on 64-bit builds, integers
// on 32-bit ones.
template <typename Handle>
unsigned long long HandleNumber(Handle handle) {
    if constexpr (std::is_pointer_v<Handle>) {
        return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(handle));
    } else {
        return static_cast<unsigned long long>(handle);
    }
}

}  // namespace vulkan::zovk::app::module
