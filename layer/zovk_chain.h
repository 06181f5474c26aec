#pragma once

#include <vulkan/vulkan_core.h>

namespace vulkan::zovk {

// The first structure of `type` in the pNext chain that starts at `next`; null if none.
template <typename T>
const T* FindInChain(const void* next, VkStructureType type) {
    for (auto* s = static_cast<const VkBaseInStructure*>(next); s != nullptr; s = s->pNext) {
        if (s->sType == type) {
            return reinterpret_cast<const T*>(s);
        }
    }
    return nullptr;
}

}  // namespace vulkan::zovk
