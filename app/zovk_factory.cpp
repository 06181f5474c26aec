#include "app/zovk_factory.h"

#include <unordered_set>

#include "app/module/zovk_antutu_processor.h"
#include "app/module/zovk_antutu_vrs_module.h"
#include "app/module/zovk_antutu_vrs_module_data.h"
#include "app/module/zovk_star_rail_hsre_module.h"
#include "app/module/zovk_star_rail_processor.h"
#include "app/module/zovk_star_rail_vrs_module.h"
#include "app/zovk_app_data.h"

#include "app/zovk_module_base.h"
#include "app/zovk_processor_base.h"
#include "app/zovk_processor_data_base.h"
#include "settings/zovk_log.h"
#include "settings/zovk_never_destroyed.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

namespace {

using ModuleCreators = std::unordered_map<unsigned int, ZoVkModuleCreator>;
using ModuleDataCreators = std::unordered_map<unsigned int, ZoVkModuleDataCreator>;

template <typename Map>
Map MakeRegistry() {
    Map map;
    map.max_load_factor(1.0f);
    return map;
}

ZoVkNeverDestroyed<ZoVkProcessorCreator> gProcessorCreator;
ZoVkNeverDestroyed<ModuleCreators> gModuleCreators(MakeRegistry<ModuleCreators>());
ZoVkNeverDestroyed<ModuleDataCreators> gModuleDataCreators(MakeRegistry<ModuleDataCreators>());

}  // namespace

ZoVkProcessorCreator& gCreateProcessorFunc = *gProcessorCreator.Get();
void (*gModuleCreateInfoFunc)(unsigned int) = nullptr;
ModuleCreators& gCreateModuleMap = *gModuleCreators.Get();
ModuleDataCreators& gCreateModuleDataMap = *gModuleDataCreators.Get();

bool IsSharedProcessor() {
    // Kept as the place where application types sharing one processor would be listed.
    static ZoVkNeverDestroyed<const std::unordered_set<unsigned int>> shared;
    return shared.Get()->count(ZoVkSettings::GetInstance()->GetApplicationType()) != 0;
}

ZoVkProcessorDataBase* CreateProcessorData() {
    switch (ZoVkSettings::GetInstance()->GetApplicationType()) {
        case ZOVK_APPLICATION_NONE:
            return nullptr;
        case ZOVK_APPLICATION_ANTUTU:
            return new ZoVkAntutuData();
        case ZOVK_APPLICATION_STAR_RAIL:
            return new ZoVkStarRailData();
        default:
            break;
    }
    if (IsSharedProcessor()) {
        return nullptr;
    }
    auto* data = new ZoVkProcessorDataBase();
    data->removeExtensionFunctions = true;
    return data;
}

namespace {

template <typename Processor>
std::shared_ptr<ZoVkProcessorBase> MakeProcessor() {
    auto processor = std::make_shared<Processor>();
    processor->OnBegin();
    return processor;
}

}  // namespace

void InitProcessorCreateInfo() {
    switch (ZoVkSettings::GetInstance()->GetApplicationType()) {
        case ZOVK_APPLICATION_NONE:
            return;
        case ZOVK_APPLICATION_ANTUTU:
            gCreateProcessorFunc = MakeProcessor<ZoVkAntutuProcessor>;
            gModuleCreateInfoFunc = InitAntutuModuleCreateInfo;
            return;
        case ZOVK_APPLICATION_STAR_RAIL:
            gCreateProcessorFunc = MakeProcessor<ZoVkStarRailProcessor>;
            gModuleCreateInfoFunc = InitStarRailModuleCreateInfo;
            return;
        default:
            break;
    }
    if (IsSharedProcessor()) {
        return;
    }
    if (!gCreateProcessorFunc) {
        gCreateProcessorFunc = [] { return std::shared_ptr<ZoVkProcessorBase>(); };
    }
    if (gModuleCreateInfoFunc == nullptr) {
        gModuleCreateInfoFunc = DummyModuleCreate;
    }
}

void InitModuleCreateInfo(unsigned int id) {
    if (gModuleCreateInfoFunc != nullptr) {
        gModuleCreateInfoFunc(id);
    }
}

void InitAntutuModuleCreateInfo(unsigned int id) {
    using module::ZoVkAntutuVRSModule;
    using module::ZoVkAntutuVRSModuleData;
    if (id != 0 && id == ZoVkAntutuVRSModule::PROCESSOR_MODULE_TYPE) {
        gCreateModuleMap[id] = [](ZoVkProcessorBase* processor) { return new ZoVkAntutuVRSModule(processor); };
    }
    if (id != 0 && id == ZoVkAntutuVRSModuleData::MODULE_DATA_TYPE) {
        gCreateModuleDataMap[id] = [](const Json::Value& config) { return new ZoVkAntutuVRSModuleData(config); };
    }
}

void InitStarRailModuleCreateInfo(unsigned int id) {
    using module::ZoVkStarRailHSREModule;
    using module::ZoVkStarRailHSREModuleData;
    using module::ZoVkStarRailVRSModule;
    using module::ZoVkStarRailVRSModuleData;
    if (id == ZoVkStarRailHSREModule::PROCESSOR_MODULE_TYPE) {
        gCreateModuleMap[id] = [](ZoVkProcessorBase* processor) { return new ZoVkStarRailHSREModule(processor); };
    }
    if (id == ZoVkStarRailHSREModuleData::MODULE_DATA_TYPE) {
        gCreateModuleDataMap[id] = [](const Json::Value& config) { return new ZoVkStarRailHSREModuleData(config); };
    }
    if (id == ZoVkStarRailVRSModule::PROCESSOR_MODULE_TYPE) {
        gCreateModuleMap[id] = [](ZoVkProcessorBase* processor) { return new ZoVkStarRailVRSModule(processor); };
    }
    if (id == ZoVkStarRailVRSModuleData::MODULE_DATA_TYPE) {
        gCreateModuleDataMap[id] = [](const Json::Value& config) { return new ZoVkStarRailVRSModuleData(config); };
    }
}

void DummyModuleCreate(unsigned int) {}

std::shared_ptr<ZoVkProcessorBase> CreateVkProcessor() {
    // Reached only after a configuration set the creator; an empty one must not throw
    // into the application's vkCreateInstance.
    if (!gCreateProcessorFunc) {
        ZOVK_LOGE("no processor creator is set");
        return nullptr;
    }
    return gCreateProcessorFunc();
}

module::ZoVkModuleBase* CreateProcessorVkModule(unsigned int id, ZoVkProcessorBase* processor) {
    const auto it = gCreateModuleMap.find(id);
    return it == gCreateModuleMap.end() || !it->second ? nullptr : it->second(processor);
}

module::ZoVkModuleDataBase* CreateProcessorModuleData(unsigned int id, const Json::Value& config) {
    const auto it = gCreateModuleDataMap.find(id);
    return it == gCreateModuleDataMap.end() || !it->second ? nullptr : it->second(config);
}

void ReleaseProcessorData(ZoVkProcessorDataBase* data) {
    delete data;
}

void ReleaseProcessorModuleData(module::ZoVkModuleDataBase* data) {
    delete data;
}

void ReleaseProcessorVkModule(module::ZoVkModuleBase* module) {
    if (module == nullptr) {
        return;
    }
    module->OnEnd();
    delete module;
}

}  // namespace vulkan::zovk::app
