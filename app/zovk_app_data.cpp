#include "app/zovk_app_data.h"

namespace vulkan::zovk::app {

namespace {
// Module ids, as bits of the configured module mask.
constexpr unsigned int kAntutuVrsModule = 1;
constexpr unsigned int kStarRailVrsModule = 2;
}  // namespace

// Each table keeps a placeholder under 0; a table holding only that is skipped.
const ZoVkModuleFunctionTable ZoVkAntutuData::sInstanceFunctions = {{0, {}}};
const ZoVkModuleFunctionTable ZoVkAntutuData::sDeviceFunctions = {
    {kAntutuVrsModule, {"vkCmdSetFragmentShadingRateKHR", "vkQueuePresentKHR"}},
    {0, {}},
};
const ZoVkModuleFunctionTable ZoVkStarRailData::sInstanceFunctions = {
    {kStarRailVrsModule, {"vkGetPhysicalDeviceProperties2KHR"}},
    {0, {}},
};
const ZoVkModuleFunctionTable ZoVkStarRailData::sDeviceFunctions = {
    {kStarRailVrsModule, {"vkCmdSetFragmentShadingRateKHR", "vkQueuePresentKHR", "vkCreateRenderPass2KHR"}},
    {0, {}},
};

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

ZoVkAntutuData::ZoVkAntutuData() : ZoVkAppDataBase(sInstanceFunctions, sDeviceFunctions) {}

ZoVkStarRailData::ZoVkStarRailData() : ZoVkAppDataBase(sInstanceFunctions, sDeviceFunctions) {}

}  // namespace vulkan::zovk::app
