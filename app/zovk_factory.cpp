#include "app/zovk_factory.h"

#include "app/zovk_module_base.h"
#include "app/zovk_processor_base.h"
#include "app/zovk_processor_data_base.h"
#include "settings/zovk_log.h"

namespace vulkan::zovk::app {

namespace {

template <typename Map>
Map MakeRegistry() {
    Map map;
    map.max_load_factor(1.0f);
    return map;
}

}  // namespace

ZoVkProcessorCreator gCreateProcessorFunc;
void (*gModuleCreateInfoFunc)(unsigned int) = nullptr;
std::unordered_map<unsigned int, ZoVkModuleCreator> gCreateModuleMap =
    MakeRegistry<std::unordered_map<unsigned int, ZoVkModuleCreator>>();
std::unordered_map<unsigned int, ZoVkModuleDataCreator> gCreateModuleDataMap =
    MakeRegistry<std::unordered_map<unsigned int, ZoVkModuleDataCreator>>();

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
