#pragma once

// Functor chains: how a hooked Vulkan call reaches the modules and then the next layer.
//
// A node is {owner, func, priority, next}. Pre (and single-kind) nodes take the owner and
// the call's parameters and return the call's result; each decides whether to call on to
// `next`. Post nodes run after the next layer and also get its VkResult. A pre chain ends
// in the processor's tail node, which calls the next layer; a post chain ends in an
// exported dummy node, which does nothing.
//
// Everything is keyed by the call's slot in VkDeviceFunctionTable, so one template serves
// every hookable call.

#include <cstdint>
#include <type_traits>

#include "app/zovk_processor_base.h"
#include "layer/zovk_context_manager.h"

namespace vulkan::zovk::app::module {

namespace detail {
template <typename T>
struct SlotTraits;
template <typename Fn>
struct SlotTraits<Fn VkDeviceFunctionTable::*> {
    using Pfn = Fn;
};
template <auto Slot>
using PfnOf = typename SlotTraits<decltype(Slot)>::Pfn;

template <typename R>
R DefaultResult() {
    if constexpr (std::is_same_v<R, VkResult>) {
        return VK_SUCCESS;
    } else {
        return R();
    }
}
}  // namespace detail

// The next layer's function for a call, from the device record of the processor.
template <auto Slot>
detail::PfnOf<Slot> NextLayer(ZoVkProcessorBase* processor) {
    return processor->GetDeviceInfo()->functions.*Slot;
}

template <auto Slot, typename Pfn = detail::PfnOf<Slot>>
struct ZoVkPreFunctor;

// Pre and single-kind nodes.
template <auto Slot, typename R, typename... Args>
struct ZoVkPreFunctor<Slot, R(VKAPI_PTR*)(Args...)> {
    using Result = R;
    using Func = R (*)(void* owner, Args...);

    void* owner = nullptr;
    Func func = nullptr;
    int32_t priority = 0;
    ZoVkPreFunctor* next = nullptr;

    R Call(Args... args) const { return func(owner, args...); }

    // Ends a chain without doing anything.
    static R Dummy(void*, Args...) { return detail::DefaultResult<R>(); }
    // Calls the next layer through the processor's device record.
    static R Tail(void* owner, Args... args) {
        ZoVkDeviceInfo* record = static_cast<ZoVkProcessorBase*>(owner)->GetDeviceInfo();
        const auto next = record->functions.*Slot;
        if (next == nullptr) {
            return detail::DefaultResult<R>();
        }
        return next(args...);
    }
    // A module's node: hands the call to the module's handler.
    template <typename Module, R (Module::*Handler)(Args...)>
    static R Hooked(void* owner, Args... args) {
        return (static_cast<Module*>(owner)->*Handler)(args...);
    }
};

template <auto Slot, typename Pfn = detail::PfnOf<Slot>>
struct ZoVkPostFunctor;

// Post nodes: run after the next layer and receive its result (none for calls without one).
template <auto Slot, typename R, typename... Args>
struct ZoVkPostFunctor<Slot, R(VKAPI_PTR*)(Args...)> {
    using Func = std::conditional_t<std::is_same_v<R, VkResult>, void (*)(void*, Args..., VkResult),
                                    void (*)(void*, Args...)>;

    void* owner = nullptr;
    Func func = nullptr;
    int32_t priority = 0;
    ZoVkPostFunctor* next = nullptr;

    // Passes the call on to this node (the arguments, and the next layer's result if any).
    template <typename... CallArgs>
    void Call(CallArgs... args) const {
        func(owner, args...);
    }

    static void Dummy(void*, Args...) {}
    static void Dummy(void*, Args..., VkResult) {}
    template <typename Module, void (Module::*Handler)(Args..., VkResult)>
    static void Hooked(void* owner, Args... args, VkResult result) {
        (static_cast<Module*>(owner)->*Handler)(args..., result);
    }
    template <typename Module, void (Module::*Handler)(Args...)>
    static void Hooked(void* owner, Args... args) {
        (static_cast<Module*>(owner)->*Handler)(args...);
    }
};

// Unlinks `node` if it is in the chain; a node that was never filled is left alone.
template <typename Node>
void RemoveFunctor(Node*& head, Node* terminal, Node* node) {
    if (node->func == nullptr) {
        return;
    }
    for (Node** link = &head; *link != nullptr && *link != terminal; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            node->next = nullptr;
            return;
        }
    }
}

// Inserts `node` by ascending priority, after nodes of equal priority, always before the
// terminal (the tail or dummy node). A node already in the chain is moved, not linked a
// second time: a processor shared by several devices has its modules hang their nodes in
// again for each device, and a node linked to itself would loop forever.
template <typename Node>
void InsertFunctor(Node*& head, Node* terminal, Node* node) {
    for (Node** link = &head; *link != nullptr && *link != terminal; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            break;
        }
    }
    node->next = nullptr;
    if (head == nullptr || head == terminal) {
        node->next = terminal;
        head = node;
        return;
    }
    Node** link = &head;
    while (*link != nullptr && *link != terminal && (*link)->priority <= node->priority) {
        link = &(*link)->next;
    }
    node->next = *link;
    *link = node;
}

// The dummy node that ends every post chain of a call (exported, one per call).
template <auto Slot>
ZoVkPostFunctor<Slot> sPostDummy{nullptr, &ZoVkPostFunctor<Slot>::Dummy, 0, nullptr};
// The pre-side dummy of a call: ends a chain that should not reach the next layer.
template <auto Slot>
ZoVkPreFunctor<Slot> sPreDummy{nullptr, &ZoVkPreFunctor<Slot>::Dummy, 0, nullptr};

// A pre chain: head and the processor's tail node.
template <auto Slot>
struct ZoVkPreChain {
    using Node = ZoVkPreFunctor<Slot>;

    Node* head = nullptr;
    Node tail;

    // Made once the processor has a device record: the tail needs its table.
    void Reset(ZoVkProcessorBase* processor) {
        tail = Node{processor, &Node::Tail, 0, nullptr};
        head = &tail;
    }
    void Insert(Node* node) { InsertFunctor(head, &tail, node); }
    void Remove(Node* node) { RemoveFunctor(head, &tail, node); }
    template <typename... Args>
    auto Run(Args... args) const {
        return head != nullptr ? head->Call(args...) : detail::DefaultResult<typename Node::Result>();
    }
};

// A post chain: head, ending in the call's exported dummy node.
template <auto Slot>
struct ZoVkPostChain {
    using Node = ZoVkPostFunctor<Slot>;

    Node* head = &sPostDummy<Slot>;

    void Insert(Node* node) { InsertFunctor(head, &sPostDummy<Slot>, node); }
    void Remove(Node* node) { RemoveFunctor(head, &sPostDummy<Slot>, node); }
    template <typename... Args>
    void Run(Args... args) const {
        head->Call(args...);
    }
    // The shape of the create calls that modules only watch: the next layer first, then this
    // chain with its result, which the application gets.
    template <typename... Args>
    VkResult RunAfterNextLayer(ZoVkProcessorBase* processor, Args... args) const {
        const VkResult result = NextLayer<Slot>(processor)(args...);
        Run(args..., result);
        return result;
    }
};

// Fills a module's node for the chain it is about to join.
template <typename Node, typename Func>
void FillFunctor(Node& node, void* owner, Func func, int32_t priority) {
    node = Node{owner, func, priority, nullptr};
}

// Fills a module's node and hangs it into `chain`. A processor serving a new device has its
// modules register again; a node still linked from before is unlinked first, since filling
// clears its link and would cut the chain at it.
template <typename Chain, typename Node, typename Func>
void JoinFunctor(Chain& chain, Node& node, void* owner, Func func, int32_t priority) {
    chain.Remove(&node);
    FillFunctor(node, owner, func, priority);
    chain.Insert(&node);
}


}  // namespace vulkan::zovk::app::module
