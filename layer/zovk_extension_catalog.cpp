#include "layer/zovk_extension_catalog.h"

#include <unordered_map>

#include "layer/generated/zovk_extension_catalog_data.h"

namespace vulkan::zovk {

namespace {

std::unordered_map<std::string, VkExtensionFunctionInfo> BuildCatalog() {
    std::unordered_map<std::string, VkExtensionFunctionInfo> catalog;
    catalog.reserve(kExtensionCatalogEntryCount);
    for (size_t i = 0; i < kExtensionCatalogEntryCount; ++i) {
        const VkExtensionCatalogEntry& entry = kExtensionCatalogEntries[i];
        VkExtensionFunctionInfo info;
        info.instanceLevel = entry.instanceLevel;
        info.coreName = entry.coreName;
        for (const char* const* ext = entry.extensions; *ext != nullptr; ++ext) {
            info.extensions.insert(*ext);
        }
        catalog.emplace(entry.name, std::move(info));
    }
    return catalog;
}

}  // namespace

const VkExtensionFunctionInfo& GetExtensionFunctionInfo(const std::string& functionName) {
    // Built on first use: processes that never create an instance do not pay for it.
    static const std::unordered_map<std::string, VkExtensionFunctionInfo> catalog = BuildCatalog();
    static const VkExtensionFunctionInfo empty;
    const auto it = catalog.find(functionName);
    return it == catalog.end() ? empty : it->second;
}

}  // namespace vulkan::zovk
