#include "app/zovk_processor_base.h"

#include <algorithm>
#include <atomic>

#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"
#include "app/zovk_processor_data_base.h"
#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

void NoteHookFailure() {
    static std::atomic<bool> logged{false};
    if (!logged.exchange(true, std::memory_order_relaxed)) {
        ZOVK_LOGE("a module failed inside a hooked call; the call went on without it (logged once)");
    }
}

ZoVkProcessorBase::ZoVkProcessorBase() {
    instanceHooks_.max_load_factor(1.0f);
    deviceHooks_.max_load_factor(1.0f);
}

void ZoVkProcessorBase::OnBegin() {
    const ZoVkProcessorDataBase* data = ZoVkSettings::GetInstance()->GetProcessorData();
    // Copy: a module's construction may narrow the configuration's id list.
    const std::vector<unsigned int> ids = data->moduleIds;
    for (const unsigned int id : ids) {
        module::ZoVkModuleBase* module = CreateProcessorVkModule(id, this);
        if (module == nullptr) {
            continue;
        }
        if (!module->valid) {
            ReleaseProcessorVkModule(module);
            continue;
        }
        module->OnBegin();
        if (module->valid) {
            RegisterModule(module);
        } else {
            ReleaseProcessorVkModule(module);
        }
    }
}

void ZoVkProcessorBase::OnEnd() {
    UnRegisterModules();
}

void ZoVkProcessorBase::PreDestroyDevice(VkDevice device, const VkAllocationCallbacks*) {
    for (module::ZoVkModuleBase* module : modules_) {
        module->OnDeviceDestroy(device);
    }
}

void ZoVkProcessorBase::RegisterModule(module::ZoVkModuleBase* module) {
    if (module == nullptr || std::find(modules_.begin(), modules_.end(), module) != modules_.end()) {
        return;
    }
    modules_.push_back(module);
}

void ZoVkProcessorBase::UnRegisterModule(module::ZoVkModuleBase* module) {
    const auto it = std::find(modules_.begin(), modules_.end(), module);
    if (it == modules_.end()) {
        return;
    }
    modules_.erase(it);
    module->UnregisterModuleInstanceFunctors();
    module->UnregisterModuleDeviceFunctors();
    ReleaseProcessorVkModule(module);
}

void ZoVkProcessorBase::UnRegisterModules() {
    while (!modules_.empty()) {
        UnRegisterModule(modules_.back());
    }
}

module::ZoVkModuleBase* ZoVkProcessorBase::GetVkModule(unsigned int id) const {
    for (module::ZoVkModuleBase* module : modules_) {
        if (module != nullptr && module->GetModuleId() == id) {
            return module;
        }
    }
    return nullptr;
}

void ZoVkProcessorBase::SetInstanceHookFunction(const std::string& name, ZoVkHookFunction fn) {
    instanceHooks_[name] = fn;
}

void ZoVkProcessorBase::SetDeviceHookFunction(const std::string& name, ZoVkHookFunction fn) {
    deviceHooks_[name] = fn;
}

ZoVkHookFunction ZoVkProcessorBase::GetInstanceHookFunction(const std::string& name) const {
    const auto it = instanceHooks_.find(name);
    return it == instanceHooks_.end() ? nullptr : it->second;
}

ZoVkHookFunction ZoVkProcessorBase::GetDeviceHookFunction(const std::string& name) const {
    const auto it = deviceHooks_.find(name);
    return it == deviceHooks_.end() ? nullptr : it->second;
}

void ZoVkProcessorBase::InitVkInstanceHooks() {
    RegisterVkInstanceHooks();
    InitModuleHooks(&module::ZoVkModuleBase::RegisterModuleVkInstanceHooks,
                    &module::ZoVkModuleBase::RegisterModuleInstanceFunctors);
}

void ZoVkProcessorBase::InitVkDeviceHooks() {
    RegisterVkDeviceHooks();
    InitModuleHooks(&module::ZoVkModuleBase::RegisterModuleVkDeviceHooks,
                    &module::ZoVkModuleBase::RegisterModuleDeviceFunctors);
}

void ZoVkProcessorBase::InitModuleHooks(void (module::ZoVkModuleBase::*hooks)(),
                                        void (module::ZoVkModuleBase::*functors)()) {
    const ZoVkProcessorDataBase* data = ZoVkSettings::GetInstance()->GetProcessorData();
    for (module::ZoVkModuleBase* module : modules_) {
        // A module whose id was erased after it was created gets no hooks.
        if (data->HasModuleId(module->GetModuleId())) {
            (module->*hooks)();
            (module->*functors)();
        }
    }
}

void ZoVkProcessorBase::SetInstanceInfo(ZoVkInstanceInfo* info) {
    if (info == nullptr || info == instanceInfo_) {
        return;
    }
    instanceInfo_ = info;
    OnGettingInstanceInfo();
}

void ZoVkProcessorBase::SetDeviceInfo(ZoVkDeviceInfo* info) {
    if (info == nullptr || info == deviceInfo_) {
        return;
    }
    deviceInfo_ = info;
    OnGettingDeviceInfo();
}

}  // namespace vulkan::zovk::app
