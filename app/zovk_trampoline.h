#pragma once

// Trampolines: the functions that address resolution hands the application for hooked
// names. Each finds the device record by the handle's dispatch key and enters the
// processor's Vk<Call>Hooked member, or goes straight to the next layer when the device
// has no processor.

#include "app/zovk_functor.h"

namespace vulkan::zovk::app {

template <typename Processor, auto Slot, auto Member, typename Pfn = module::detail::PfnOf<Slot>>
struct GlobalDeviceHookFunctor;

template <typename Processor, auto Slot, auto Member, typename R, typename Handle, typename... Args>
struct GlobalDeviceHookFunctor<Processor, Slot, Member, R(VKAPI_PTR*)(Handle, Args...)> {
    static VKAPI_ATTR R VKAPI_CALL Call(Handle handle, Args... args) {
        if (handle == VK_NULL_HANDLE) {
            return module::detail::DefaultResult<R>();
        }
        void* key = GetDispatchKey(handle);
        ZoVkDeviceInfo* record = key != nullptr ? ZoVkContextManager::GetInstance()->GetDeviceInfo(key) : nullptr;
        if (record == nullptr) {
            return module::detail::DefaultResult<R>();
        }
        if (!record->processor) {
            const auto next = record->functions.*Slot;
            return next != nullptr ? next(handle, args...) : module::detail::DefaultResult<R>();
        }
        return (static_cast<Processor*>(record->processor.get())->*Member)(handle, args...);
    }

    static ZoVkHookFunction Address() { return reinterpret_cast<ZoVkHookFunction>(&Call); }
};

}  // namespace vulkan::zovk::app
