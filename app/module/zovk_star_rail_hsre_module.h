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

// The HSRE module's hooked call.
#define ZOVK_STAR_RAIL_HSRE_HOOKS(X) X(Pre, CreateGraphicsPipelines, 0)

// Tells the game service, once, that Star Rail renders through Vulkan: it watches
// vkCreateGraphicsPipelines and lets every call go on unchanged.
class ZoVkStarRailHSREModule : public ZoVkModuleBase {
public:
    static constexpr unsigned int PROCESSOR_MODULE_TYPE = 1;

    explicit ZoVkStarRailHSREModule(ZoVkProcessorBase* processor);

    unsigned int GetModuleId() const override { return PROCESSOR_MODULE_TYPE; }

private:
    ZoVkStarRailProcessor* processor_;
    ZoVkModuleDataBase* data_;

    ZOVK_MODULE_HOOKS(ZoVkStarRailHSREModule, ZoVkStarRailProcessor, ZOVK_STAR_RAIL_HSRE_HOOKS)
};

}  // namespace vulkan::zovk::app::module
