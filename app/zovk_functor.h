#pragma once

// Functor chains: how a hooked Vulkan call reaches the modules and then the next layer.
//
// A node is {owner, func, priority, next}. A pre node runs before the next layer: its
// function gets the call's parameters and a ZoVkNext, the rest of the chain together with
// the record of the device the call was made on, and must hand the call on through it
// (the handler's return type can only be made by ZoVkNext, so a handler that forgets does
// not compile). Every pre chain ends in the call's tail, which calls the next layer from
// that record's table; post nodes run after the next layer, in order, and get its result.
//
// Everything is keyed by the call's slot in VkDeviceFunctionTable, so one template serves
// every hookable call. zovk_hook_lists.h expands a processor's and a module's list of calls
// into these pieces.

#include <cstdint>
#include <type_traits>

#include "layer/zovk_records.h"

namespace vulkan::zovk::app {
void NoteHookFailure();  // zovk_processor_base.cpp
}

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

template <auto Slot, typename Pfn = detail::PfnOf<Slot>>
struct ZoVkPreFunctor;
template <auto Slot, typename Pfn = detail::PfnOf<Slot>>
class ZoVkNext;

// What a pre handler returns: proof that it handed the call on (or ended it on purpose),
// carrying the call's result.
template <typename R>
class ZoVkPassed {
public:
    R Result() const { return result_; }

private:
    template <auto, typename>
    friend class ZoVkNext;
    explicit ZoVkPassed(R result) : result_(result) {}
    R result_;
};
template <>
class ZoVkPassed<void> {
public:
    void Result() const {}

private:
    template <auto, typename>
    friend class ZoVkNext;
    ZoVkPassed() = default;
};

// Pre nodes: the call's parameters first, then where the call stands in the chain.
template <auto Slot, typename R, typename... Args>
struct ZoVkPreFunctor<Slot, R(VKAPI_PTR*)(Args...)> {
    using Result = R;
    using At = ZoVkNext<Slot>;
    // The node itself and the device record come last, as two words: with the call's own
    // arguments first, they stay in the registers they arrived in.
    using Func = R (*)(Args..., const ZoVkPreFunctor* self, const ZoVkDeviceInfo* record) noexcept;
    // A module's handler: the call's parameters, then the rest of the chain to hand it to.
    using HandlerType = ZoVkPassed<R>(Args..., At next);
    template <typename Module>
    using Handler = HandlerType Module::*;

    void* owner = nullptr;
    Func func = nullptr;
    int32_t priority = 0;
    ZoVkPreFunctor* next = nullptr;

    // Calls the next layer; what a chain with no module node runs.
    static R Tail(Args... args, const ZoVkPreFunctor* self, const ZoVkDeviceInfo* record) noexcept {
        return At::RunFrom(self, *record, args...);
    }
    // A module's node: hands the call to the module's handler, which hands it on through `at`.
    // No exception leaves a node: a handler that throws (handlers hand the call on last) is
    // skipped, the call goes on unchanged, and the failure is logged once. The next layer
    // never throws (ZoVkNext calls it noexcept), so a handler that cannot throw otherwise pays
    // nothing for this.
    template <typename Module, Handler<Module> H>
    static R Hooked(Args... args, const ZoVkPreFunctor* self, const ZoVkDeviceInfo* record) noexcept {
        try {
            return (static_cast<Module*>(self->owner)->*H)(args..., At(self, record)).Result();
        } catch (...) {
            NoteHookFailure();
            return At::RunFrom(self->next, *record, args...);
        }
    }
};

// The last node of every pre chain of a call, which calls the next layer.
template <auto Slot>
inline ZoVkPreFunctor<Slot> sPreTail{nullptr, &ZoVkPreFunctor<Slot>::Tail, 0, nullptr};

// Where a call stands in its pre chain: the node whose handler runs and the record of the
// device the call was made on (the one the trampoline found for the call's own handle).
template <auto Slot, typename R, typename... Args>
class ZoVkNext<Slot, R(VKAPI_PTR*)(Args...)> {
public:
    using Node = ZoVkPreFunctor<Slot>;

    ZoVkNext(const Node* current, const ZoVkDeviceInfo* record) : current_(current), record_(record) {}

    // Hands the call on to the rest of the chain, with the same or replaced arguments.
    ZoVkPassed<R> operator()(Args... args) const {
        if constexpr (std::is_void_v<R>) {
            RunFrom(current_->next, *record_, args...);
            return ZoVkPassed<void>();
        } else {
            return ZoVkPassed<R>(RunFrom(current_->next, *record_, args...));
        }
    }
    // Ends the call here: nothing after this node runs, and `result` is the call's.
    template <typename Result = R, typename = std::enable_if_t<!std::is_void_v<Result>>>
    ZoVkPassed<R> End(Result result) const {
        return ZoVkPassed<R>(result);
    }
    // The device the call was made on, and its next layer.
    const ZoVkDeviceInfo& Record() const { return *record_; }
    const VkDeviceFunctionTable& NextLayer() const { return record_->functions; }
    const Node* Current() const { return current_; }

    // Runs the chain from `node` on. A node handing on to the tail calls the next layer
    // itself, with the arguments where they already are; a further node is the rare case.
    static R RunFrom(const Node* node, const ZoVkDeviceInfo& record, Args... args) noexcept {
        if (__builtin_expect(node == &sPreTail<Slot>, 1)) {
            // The layers and drivers below are C: nothing is thrown from them. Saying so lets
            // this call be a jump, and keeps it outside every module's exception barrier.
            using NextLayerCall = R(VKAPI_PTR*)(Args...) noexcept;
            const auto next = reinterpret_cast<NextLayerCall>(record.functions.*Slot);
            return next != nullptr ? next(args...) : detail::DefaultResult<R>();
        }
        return RunNode(node, record, args...);
    }
    // Runs the chain from its head: a hooked call almost always has a module node there, so
    // the head is called without looking for the tail first.
    static R RunHead(const Node* head, const ZoVkDeviceInfo& record, Args... args) noexcept {
        return head->func(args..., head, &record);
    }

private:
    __attribute__((noinline, cold)) static R RunNode(const Node* node, const ZoVkDeviceInfo& record,
                                                     Args... args) noexcept {
        return node->func(args..., node, &record);
    }

public:

private:
    const Node* current_;
    const ZoVkDeviceInfo* record_;
};

template <auto Slot, typename Pfn = detail::PfnOf<Slot>>
struct ZoVkPostFunctor;

// Post nodes: run after the next layer and receive its result (none for calls without one).
template <auto Slot, typename R, typename... Args>
struct ZoVkPostFunctor<Slot, R(VKAPI_PTR*)(Args...)> {
    static constexpr bool kHasResult = std::is_same_v<R, VkResult>;
    using Func = std::conditional_t<kHasResult, void (*)(void*, Args..., VkResult) noexcept,
                                    void (*)(void*, Args...) noexcept>;
    // A module's handler: the call's parameters, then the next layer's result if the call has one.
    using HandlerType = std::conditional_t<kHasResult, void(Args..., VkResult), void(Args...)>;

    void* owner = nullptr;
    Func func = nullptr;
    int32_t priority = 0;
    ZoVkPostFunctor* next = nullptr;

    static void Dummy(void*, Args...) noexcept {}
    static void Dummy(void*, Args..., VkResult) noexcept {}
    // A node that throws is skipped, as a pre node is; the next layer has already run.
    template <typename Module, void (Module::*H)(Args..., VkResult)>
    static void Hooked(void* owner, Args... args, VkResult result) noexcept {
        try {
            (static_cast<Module*>(owner)->*H)(args..., result);
        } catch (...) {
            NoteHookFailure();
        }
    }
    template <typename Module, void (Module::*H)(Args...)>
    static void Hooked(void* owner, Args... args) noexcept {
        try {
            (static_cast<Module*>(owner)->*H)(args...);
        } catch (...) {
            NoteHookFailure();
        }
    }
};

// The dummy node that ends every post chain of a call.
template <auto Slot>
inline ZoVkPostFunctor<Slot> sPostDummy{nullptr, &ZoVkPostFunctor<Slot>::Dummy, 0, nullptr};

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
    RemoveFunctor(head, terminal, node);
    Node** link = &head;
    while (*link != nullptr && *link != terminal && (*link)->priority <= node->priority) {
        link = &(*link)->next;
    }
    node->next = *link != nullptr ? *link : terminal;
    *link = node;
}

// A pre chain: its head, which is the call's tail until a module hangs a node in.
template <auto Slot>
struct ZoVkPreChain {
    using Node = ZoVkPreFunctor<Slot>;

    Node* head = &sPreTail<Slot>;

    void Insert(Node* node) { InsertFunctor(head, &sPreTail<Slot>, node); }
    void Remove(Node* node) { RemoveFunctor(head, &sPreTail<Slot>, node); }
    template <typename... Args>
    auto Run(const ZoVkDeviceInfo& record, Args... args) const {
        return ZoVkNext<Slot>::RunHead(head, record, args...);
    }
};

// A post chain: its head, ending in the call's dummy node. Every node runs, in order.
template <auto Slot>
struct ZoVkPostChain {
    using Node = ZoVkPostFunctor<Slot>;

    Node* head = &sPostDummy<Slot>;

    void Insert(Node* node) { InsertFunctor(head, &sPostDummy<Slot>, node); }
    void Remove(Node* node) { RemoveFunctor(head, &sPostDummy<Slot>, node); }
    template <typename... Args>
    void Run(Args... args) const noexcept {
        for (const Node* node = head; node != &sPostDummy<Slot>; node = node->next) {
            node->func(node->owner, args...);
        }
    }
};

// Fills a module's node and hangs it into `chain`; a node still linked from an earlier
// registration is moved, not linked twice.
template <typename Chain, typename Node, typename Func>
void JoinFunctor(Chain& chain, Node& node, void* owner, Func func, int32_t priority) {
    chain.Remove(&node);
    node = Node{owner, func, priority, nullptr};
    chain.Insert(&node);
}

// How a processor runs one hooked call (fixed per call and processor).
enum class ZoVkChainShape {
    Pre,           // the pre chain, whose tail calls the next layer
    NextThenPost,  // the next layer, then the post chain with its result
    PreThenPost,   // the pre chain, then the post chain with the pre chain's result
};
enum class ZoVkNodeKind { Pre, Post };

template <auto Slot, ZoVkChainShape Shape, typename Pfn = detail::PfnOf<Slot>>
class ZoVkHookedCall;

// A processor's Vk<Call>Hooked member: the chains of one call, run in the call's shape.
template <auto Slot, ZoVkChainShape Shape, typename R, typename... Args>
class ZoVkHookedCall<Slot, Shape, R(VKAPI_PTR*)(Args...)> {
public:
    R operator()(const ZoVkDeviceInfo& record, Args... args) const noexcept {
        if constexpr (Shape == ZoVkChainShape::Pre) {
            return pre_.Run(record, args...);
        } else {
            const auto run = [&] {
                if constexpr (Shape == ZoVkChainShape::PreThenPost) {
                    return pre_.Run(record, args...);
                } else {
                    const auto next = record.functions.*Slot;
                    return next != nullptr ? next(args...) : detail::DefaultResult<R>();
                }
            };
            if constexpr (std::is_void_v<R>) {
                run();
                post_.Run(args...);
            } else {
                const R result = run();
                post_.Run(args..., result);
                return result;
            }
        }
    }

    // The chain a module's node of this kind joins; a call without that chain does not compile.
    template <ZoVkNodeKind Kind>
    auto& Chain() {
        if constexpr (Kind == ZoVkNodeKind::Pre) {
            static_assert(Shape != ZoVkChainShape::NextThenPost, "this call runs no pre chain");
            return pre_;
        } else {
            static_assert(Shape != ZoVkChainShape::Pre, "this call runs no post chain");
            return post_;
        }
    }

private:
    ZoVkPreChain<Slot> pre_;
    ZoVkPostChain<Slot> post_;
};

}  // namespace vulkan::zovk::app::module
