#include "app/module/zovk_star_rail_hsre_module.h"

#include "settings/zovk_scene_recognizer.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

ZoVkStarRailHSREModule::ZoVkStarRailHSREModule(ZoVkProcessorBase* processor)
    : ZoVkModuleBase(processor),
      processor_(static_cast<ZoVkStarRailProcessor*>(processor)),
      data_(ZoVkSettings::GetInstance()->GetProcessorData()->GetProcessorModuleData(PROCESSOR_MODULE_TYPE)) {
    if (data_ == nullptr) {
        valid = false;
    }
}

ZoVkPassed<VkResult> ZoVkStarRailHSREModule::PreVkCreateGraphicsPipelines(
    VkDevice device, VkPipelineCache pipelineCache, uint32_t createInfoCount,
    const VkGraphicsPipelineCreateInfo* pCreateInfos, const VkAllocationCallbacks* pAllocator, VkPipeline* pPipelines,
    ZoVkNext<&VkDeviceFunctionTable::vkCreateGraphicsPipelines> next) {
    StarRailSceneRecognizer::getInstance()->notifyVkMode();
    return next(device, pipelineCache, createInfoCount, pCreateInfos, pAllocator, pPipelines);
}

}  // namespace vulkan::zovk::app::module
