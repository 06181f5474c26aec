#include "app/zovk_app_data.h"

#include "settings/zovk_never_destroyed.h"

namespace vulkan::zovk::app {

namespace {

// Module ids, as bits of the configured module mask.
constexpr unsigned int kAntutuVrsModule = 1;
constexpr unsigned int kStarRailVrsModule = 2;

// Each table keeps a placeholder under 0; a table holding only that is skipped. Never
// destroyed: the configuration data refers to them for the life of the process.
using Table = ZoVkModuleFunctionTable;
ZoVkNeverDestroyed<const Table> gAntutuInstanceFunctions(Table{{0, {}}});
ZoVkNeverDestroyed<const Table> gAntutuDeviceFunctions(Table{
    {kAntutuVrsModule, {"vkCmdSetFragmentShadingRateKHR", "vkQueuePresentKHR"}},
    {0, {}},
});
ZoVkNeverDestroyed<const Table> gStarRailInstanceFunctions(Table{
    {kStarRailVrsModule, {"vkGetPhysicalDeviceProperties2KHR"}},
    {0, {}},
});
ZoVkNeverDestroyed<const Table> gStarRailDeviceFunctions(Table{
    {kStarRailVrsModule, {"vkCmdSetFragmentShadingRateKHR", "vkQueuePresentKHR", "vkCreateRenderPass2KHR"}},
    {0, {}},
});

}  // namespace

ZoVkAppDataBase::ZoVkAppDataBase(const ZoVkModuleFunctionTable& instanceTable,
                                 const ZoVkModuleFunctionTable& deviceTable)
    : instanceTable_(instanceTable), deviceTable_(deviceTable) {
    removeExtensionFunctions = true;
}

void ZoVkAppDataBase::ColloctModuleExtensionFunctions() {
    if (instanceTable_.size() >= 2) {
        CollectInstanceExtensionFunctions(instanceTable_);
    }
    if (deviceTable_.size() >= 2) {
        CollectDeviceExtensionFunctions(deviceTable_);
    }
}

const std::vector<std::string>& ZoVkAppDataBase::GetModuleExtensionFunctions(unsigned int moduleId,
                                                                              bool instanceLevel) {
    const ZoVkModuleFunctionTable& table = instanceLevel ? instanceTable_ : deviceTable_;
    const auto it = table.find(moduleId);
    return it == table.end() ? ZoVkProcessorDataBase::GetModuleExtensionFunctions(moduleId, instanceLevel)
                             : it->second;
}

ZoVkAntutuData::ZoVkAntutuData() : ZoVkAppDataBase(*gAntutuInstanceFunctions.Get(), *gAntutuDeviceFunctions.Get()) {}

ZoVkStarRailData::ZoVkStarRailData()
    : ZoVkAppDataBase(*gStarRailInstanceFunctions.Get(), *gStarRailDeviceFunctions.Get()) {}

}  // namespace vulkan::zovk::app
