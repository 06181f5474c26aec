#pragma once

#include <string>
#include <unordered_map>

#include "layer/generated/zovk_dispatch_tables.h"

namespace vulkan::zovk {

struct VkExtensionFunctionInfo;

// Function name to its slot in one particular table (the table of the same record).
using ZoVkFunctionMap = std::unordered_map<std::string, PFN_vkVoidFunction*>;

void InitVkInstanceFunctionMap(VkInstanceFunctionTable* table, ZoVkFunctionMap& map);
void InitVkDeviceFunctionMap(VkDeviceFunctionTable* table, ZoVkFunctionMap& map);

// Fills the null core slots up to `apiVersion` from the next layer's resolver.
void FillInstanceCoreFunctions(VkInstance instance, VkInstanceFunctionTable* table, ZoVkFunctionMap& map,
                               uint64_t apiVersion);
void FillDeviceCoreFunctions(VkDevice device, VkDeviceFunctionTable* table, ZoVkFunctionMap& map,
                             uint64_t apiVersion);

// Fills one extension slot, from its promoted core function when that is known.
// Takes no lock: the caller holds the registry's exclusive lock.
bool InitInstanceExtensionFunctionWithoutLock(VkInstance instance, VkInstanceFunctionTable* table,
                                              ZoVkFunctionMap& map, const std::string& name,
                                              const VkExtensionFunctionInfo& info);
bool InitDeviceExtensionFunctionWithoutLock(VkDevice device, VkDeviceFunctionTable* table, ZoVkFunctionMap& map,
                                            const std::string& name, const VkExtensionFunctionInfo& info);

}  // namespace vulkan::zovk
