#pragma once

// The per-call plumbing of processors and modules, written once per call in a list and
// expanded here, so that adding a hooked call is one list entry plus its handler.
//
// A processor lists the calls it serves, X(Call, Shape), with Call the Vulkan name without
// "vk" and Shape a ZoVkChainShape; ZOVK_PROCESSOR_HOOKED_CALL makes each entry its
// Vk<Call>Hooked member, which holds the call's chains and runs them in the call's shape.
//
// A module lists the calls it hooks, X(Kind, Call, Priority), with Kind Pre or Post;
// ZOVK_MODULE_HOOKS(Module, Processor, LIST) then declares each entry's handler
// (Pre<VkCall> / Post<VkCall>, to be defined by the module) and its node, and defines the
// module's trampoline registration, joins and removals. The module keeps its processor in
// `processor_`. The macro ends in a private section.

#include "app/zovk_functor.h"
#include "app/zovk_trampoline.h"

namespace vulkan::zovk::app::module {

template <ZoVkNodeKind Kind, auto Slot>
using ZoVkNode = std::conditional_t<Kind == ZoVkNodeKind::Pre, ZoVkPreFunctor<Slot>, ZoVkPostFunctor<Slot>>;
template <ZoVkNodeKind Kind, auto Slot>
using ZoVkHandlerType = typename ZoVkNode<Kind, Slot>::HandlerType;

}  // namespace vulkan::zovk::app::module

#define ZOVK_PROCESSOR_HOOKED_CALL(Call, Shape)                                               \
    ::vulkan::zovk::app::module::ZoVkHookedCall<&VkDeviceFunctionTable::vk##Call,             \
                                                ::vulkan::zovk::app::module::ZoVkChainShape::Shape> \
        Vk##Call##Hooked;

#define ZOVK_MODULE_HOOKS(Module, Processor, LIST) \
    ZOVK_MODULE_HOOKS_SOME_IF(Module, Processor, LIST, ZOVK_DETAIL_NO_HOOKS, false)

// As ZOVK_MODULE_HOOKS, with a second list whose calls are hooked only when `enabled` (an
// expression on the module, read as it registers): a call one mode of the module needs stays
// direct, with no trampoline, in the other. Removal of a node never joined does nothing.
#define ZOVK_MODULE_HOOKS_SOME_IF(Module, Processor, LIST, SOME, enabled)                      \
public:                                                                                      \
    LIST(ZOVK_DETAIL_MODULE_HANDLER)                                                         \
    SOME(ZOVK_DETAIL_MODULE_HANDLER)                                                         \
    void RegisterModuleVkDeviceHooks() override {                                            \
        LIST(ZOVK_DETAIL_MODULE_SET_HOOK) if (enabled) { SOME(ZOVK_DETAIL_MODULE_SET_HOOK) } \
    }                                                                                        \
    void RegisterModuleDeviceFunctors() override {                                           \
        LIST(ZOVK_DETAIL_MODULE_JOIN) if (enabled) { SOME(ZOVK_DETAIL_MODULE_JOIN) }         \
    }                                                                                        \
    void UnregisterModuleDeviceFunctors() override {                                         \
        LIST(ZOVK_DETAIL_MODULE_REMOVE) SOME(ZOVK_DETAIL_MODULE_REMOVE)                      \
    }                                                                                        \
                                                                                             \
private:                                                                                     \
    using ZoVkHookModule = Module;                                                           \
    using ZoVkHookProcessor = Processor;                                                     \
    LIST(ZOVK_DETAIL_MODULE_NODE)                                                            \
    SOME(ZOVK_DETAIL_MODULE_NODE)

#define ZOVK_DETAIL_NO_HOOKS(X)

#define ZOVK_DETAIL_MODULE_HANDLER(Kind, Call, Priority)                                                 \
    ::vulkan::zovk::app::module::ZoVkHandlerType<::vulkan::zovk::app::module::ZoVkNodeKind::Kind, \
                                                 &VkDeviceFunctionTable::vk##Call>                \
        Kind##Vk##Call;

#define ZOVK_DETAIL_MODULE_NODE(Kind, Call, Priority)                                             \
    ::vulkan::zovk::app::module::ZoVkNode<::vulkan::zovk::app::module::ZoVkNodeKind::Kind, \
                                          &VkDeviceFunctionTable::vk##Call>                \
        Kind##Vk##Call##Node_;

#define ZOVK_DETAIL_MODULE_SET_HOOK(Kind, Call, Priority)                                     \
    ::vulkan::zovk::app::SetDeviceHook<ZoVkHookProcessor, &VkDeviceFunctionTable::vk##Call, \
                                       &ZoVkHookProcessor::Vk##Call##Hooked>(processor_, "vk" #Call);

#define ZOVK_DETAIL_MODULE_JOIN(Kind, Call, Priority)                                                       \
    ::vulkan::zovk::app::module::JoinFunctor(                                                               \
        processor_->Vk##Call##Hooked.Chain<::vulkan::zovk::app::module::ZoVkNodeKind::Kind>(),             \
        Kind##Vk##Call##Node_, this,                                                                        \
        &decltype(Kind##Vk##Call##Node_)::template Hooked<ZoVkHookModule, &ZoVkHookModule::Kind##Vk##Call>, \
        Priority);

#define ZOVK_DETAIL_MODULE_REMOVE(Kind, Call, Priority) \
    processor_->Vk##Call##Hooked.Chain<::vulkan::zovk::app::module::ZoVkNodeKind::Kind>().Remove(&Kind##Vk##Call##Node_);
