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

void ZoVkStarRailHSREModule::RegisterModuleVkDeviceHooks() {
    SetDeviceHook<ZoVkStarRailProcessor, &VkDeviceFunctionTable::vkCreateGraphicsPipelines,
                  &ZoVkStarRailProcessor::VkCreateGraphicsPipelinesHooked>(processor_, "vkCreateGraphicsPipelines");
}

void ZoVkStarRailHSREModule::RegisterModuleDeviceFunctors() {
    FillFunctor(node_, this,
                &PipelinesNode::Hooked<ZoVkStarRailHSREModule, &ZoVkStarRailHSREModule::PreVkCreateGraphicsPipelines>,
                0);
    processor_->createGraphicsPipelines.Insert(&node_);
}

void ZoVkStarRailHSREModule::UnregisterModuleDeviceFunctors() {
    processor_->createGraphicsPipelines.Remove(&node_);
}

VkResult ZoVkStarRailHSREModule::PreVkCreateGraphicsPipelines(VkDevice device, VkPipelineCache pipelineCache,
                                                              uint32_t createInfoCount,
                                                              const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                                              const VkAllocationCallbacks* pAllocator,
                                                              VkPipeline* pPipelines) {
    StarRailSceneRecognizer::getInstance()->notifyVkMode();
    return node_.next->Call(device, pipelineCache, createInfoCount, pCreateInfos, pAllocator, pPipelines);
}

}  // namespace vulkan::zovk::app::module
