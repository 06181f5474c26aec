#pragma once

// Trampolines: the functions that address resolution hands the application for hooked
// names. Each finds the device record by the handle's dispatch key and runs the processor's
// Vk<Call>Hooked member with that record, or goes straight to the next layer when the
// device has no processor.

#include "app/zovk_functor.h"
#include "app/zovk_processor_base.h"
#include "layer/zovk_context_manager.h"

namespace vulkan::zovk::app {

template <typename Processor, auto Slot, auto Member, typename Pfn = module::detail::PfnOf<Slot>>
struct GlobalDeviceHookFunctor;

template <typename Processor, auto Slot, auto Member, typename R, typename Handle, typename... Args>
struct GlobalDeviceHookFunctor<Processor, Slot, Member, R(VKAPI_PTR*)(Handle, Args...)> {
    // The common case (the first recent device, which has a processor and is only kept
    // while lookups take no lock) makes no call before the chain's, so the arguments stay in
    // the registers they arrived in; everything else is out of line. This path and the
    // chain's together cost 28 instructions over a direct call of the next layer with one
    // module node (tests/bench/callgrind_trampoline.sh).
    static VKAPI_ATTR R VKAPI_CALL Call(Handle handle, Args... args) {
        if (__builtin_expect(handle != VK_NULL_HANDLE, 1)) {
            ZoVkDeviceInfo* record =
                ZoVkContextManager::GetInstance()->FindFirstRecentDevice(GetDispatchKey(handle));
            if (__builtin_expect(record != nullptr, 1)) {
                return (static_cast<Processor*>(record->processor.get())->*Member)(*record, handle, args...);
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
        return (static_cast<Processor*>(record->processor.get())->*Member)(*record, handle, args...);
    }
};

// Enters the trampoline of `Processor` for a call into `processor`'s device hook map, under the
// call's name: how modules install the hooks their nodes need.
template <typename Processor, auto Slot, auto Member>
void SetDeviceHook(ZoVkProcessorBase* processor, const char* name) {
    processor->SetDeviceHookFunction(name, GlobalDeviceHookFunctor<Processor, Slot, Member>::Address());
}

}  // namespace vulkan::zovk::app
