#include "layer/zovk_dispatch_table.h"

#include "layer/zovk_extension_catalog.h"

namespace vulkan::zovk {

namespace {

template <typename Table>
PFN_vkVoidFunction* SlotAt(Table* table, size_t offset) {
    return reinterpret_cast<PFN_vkVoidFunction*>(reinterpret_cast<char*>(table) + offset);
}

template <typename Table>
void BuildMap(Table* table, const VkFunctionSlotInfo* slots, size_t count, ZoVkFunctionMap& map) {
    map.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        map.emplace(slots[i].name, SlotAt(table, slots[i].offset));
    }
}

template <typename Handle, typename Table, typename Resolver>
void FillCore(Handle handle, Table* table, ZoVkFunctionMap& map, uint64_t apiVersion, Resolver resolve,
              const VkFunctionSlotInfo* slots, size_t count) {
    if (resolve == nullptr) {
        return;
    }
    for (size_t i = 0; i < count; ++i) {
        const VkFunctionSlotInfo& slot = slots[i];
        if (slot.coreVersion == 0 || slot.coreVersion > apiVersion) {
            continue;
        }
        PFN_vkVoidFunction* own = SlotAt(table, slot.offset);
        if (*own != nullptr) {
            continue;
        }
        const PFN_vkVoidFunction fn = resolve(handle, slot.name);
        *own = fn;
        // All filling goes through the map, which names the same slot.
        const auto it = map.find(slot.name);
        if (it != map.end() && *it->second == nullptr) {
            *it->second = fn;
        }
    }
}

template <typename Handle, typename Table, typename Resolver>
bool FillExtension(Handle handle, Table* table, ZoVkFunctionMap& map, const std::string& name,
                   const VkExtensionFunctionInfo& info, Resolver resolve) {
    const auto it = map.find(name);
    if (it == map.end()) {
        return false;
    }
    PFN_vkVoidFunction* slot = it->second;
    if (*slot != nullptr) {
        return true;
    }
    PFN_vkVoidFunction* core = nullptr;
    if (!info.coreName.empty()) {
        const auto coreIt = map.find(info.coreName);
        core = coreIt == map.end() ? nullptr : coreIt->second;
    }
    if (core != nullptr && *core != nullptr) {
        *slot = *core;
        return true;
    }
    if (resolve != nullptr) {
        *slot = resolve(handle, name.c_str());
    }
    // The extension function then also serves calls made by the core name.
    if (core != nullptr && *core == nullptr) {
        *core = *slot;
    }
    return *slot != nullptr;
}

}  // namespace

void InitVkInstanceFunctionMap(VkInstanceFunctionTable* table, ZoVkFunctionMap& map) {
    BuildMap(table, kInstanceFunctionSlots, kInstanceFunctionSlotCount, map);
}

void InitVkDeviceFunctionMap(VkDeviceFunctionTable* table, ZoVkFunctionMap& map) {
    BuildMap(table, kDeviceFunctionSlots, kDeviceFunctionSlotCount, map);
}

void FillInstanceCoreFunctions(VkInstance instance, VkInstanceFunctionTable* table, ZoVkFunctionMap& map,
                               uint64_t apiVersion) {
    // The instance's version is compared raw, variant bits included.
    FillCore(instance, table, map, apiVersion, table->vkGetInstanceProcAddr, kInstanceFunctionSlots,
             kInstanceFunctionSlotCount);
}

void FillDeviceCoreFunctions(VkDevice device, VkDeviceFunctionTable* table, ZoVkFunctionMap& map,
                             uint64_t apiVersion) {
    FillCore(device, table, map, apiVersion, table->vkGetDeviceProcAddr, kDeviceFunctionSlots,
             kDeviceFunctionSlotCount);
}

bool InitInstanceExtensionFunctionWithoutLock(VkInstance instance, VkInstanceFunctionTable* table,
                                              ZoVkFunctionMap& map, const std::string& name,
                                              const VkExtensionFunctionInfo& info) {
    return FillExtension(instance, table, map, name, info, table->vkGetInstanceProcAddr);
}

bool InitDeviceExtensionFunctionWithoutLock(VkDevice device, VkDeviceFunctionTable* table, ZoVkFunctionMap& map,
                                            const std::string& name, const VkExtensionFunctionInfo& info) {
    return FillExtension(device, table, map, name, info, table->vkGetDeviceProcAddr);
}

}  // namespace vulkan::zovk
