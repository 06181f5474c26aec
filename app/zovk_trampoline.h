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
    // The common case (unlocked lookup, a device with a processor) makes no call before
    // the chain's, so the arguments stay where they arrived; everything else is out of
    // line.
    static VKAPI_ATTR R VKAPI_CALL Call(Handle handle, Args... args) {
        ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
        if (__builtin_expect(handle != VK_NULL_HANDLE && !manager->LockLookups(), 1)) {
            void* key = GetDispatchKey(handle);
            ZoVkDeviceInfo* record = key != nullptr ? manager->GetDeviceInfoWithoutLock(key) : nullptr;
            if (__builtin_expect(record != nullptr && record->processor != nullptr, 1)) {
                return (static_cast<Processor*>(record->processor.get())->*Member)(handle, args...);
            }
        }
        return CallOther(handle, args...);
    }

    static ZoVkHookFunction Address() { return reinterpret_cast<ZoVkHookFunction>(&Call); }

private:
    __attribute__((noinline)) static R CallOther(Handle handle, Args... args) {
        // A null handle or key ends the call as if it had succeeded.
        void* key = handle != VK_NULL_HANDLE ? GetDispatchKey(handle) : nullptr;
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
};

// Enters the trampoline of `Processor` for a call into `processor`'s device hook map, under the
// call's name: how modules install the hooks their nodes need.
template <typename Processor, auto Slot, auto Member>
void SetDeviceHook(ZoVkProcessorBase* processor, const char* name) {
    processor->SetDeviceHookFunction(name, GlobalDeviceHookFunctor<Processor, Slot, Member>::Address());
}

}  // namespace vulkan::zovk::app
