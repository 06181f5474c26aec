#pragma once

#include "app/module/zovk_star_rail_processor.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// Configuration of the HSRE module: it reads no key.
class ZoVkStarRailHSREModuleData : public ZoVkModuleDataBase {
public:
    static constexpr unsigned int MODULE_DATA_TYPE = 1;
    explicit ZoVkStarRailHSREModuleData(const Json::Value&) { valid = true; }
};

// Tells the game service, once, that Star Rail renders through Vulkan: it watches
// vkCreateGraphicsPipelines and lets every call go on unchanged.
class ZoVkStarRailHSREModule : public ZoVkModuleBase {
public:
    static constexpr unsigned int PROCESSOR_MODULE_TYPE = 1;
    using PipelinesNode = ZoVkPreFunctor<&VkDeviceFunctionTable::vkCreateGraphicsPipelines>;

    explicit ZoVkStarRailHSREModule(ZoVkProcessorBase* processor);

    unsigned int GetModuleId() const override { return PROCESSOR_MODULE_TYPE; }
    void RegisterModuleInstanceFunctors() override {}
    void UnregisterModuleInstanceFunctors() override {}
    void RegisterModuleVkInstanceHooks() override {}
    void RegisterModuleVkDeviceHooks() override;
    void RegisterModuleDeviceFunctors() override;
    void UnregisterModuleDeviceFunctors() override;
    void OnBegin() override {}

    VkResult PreVkCreateGraphicsPipelines(VkDevice device, VkPipelineCache pipelineCache, uint32_t createInfoCount,
                                          const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                          const VkAllocationCallbacks* pAllocator, VkPipeline* pPipelines);

private:
    PipelinesNode node_;
    ZoVkStarRailProcessor* processor_;
    ZoVkModuleDataBase* data_;
};

}  // namespace vulkan::zovk::app::module
