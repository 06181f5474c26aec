#pragma once

#include <new>
#include <utility>

namespace vulkan::zovk {

// Storage for one of the layer's process-wide objects, built in place and never destroyed. At
// exit the game's threads, binder threads and the other singletons' users may still reach it,
// and static destructors run in an order nobody controls; the process's end frees it.
template <typename T>
class ZoVkNeverDestroyed {
public:
    template <typename... Args>
    explicit ZoVkNeverDestroyed(Args&&... args) {
        new (storage_) T(std::forward<Args>(args)...);
    }
    ZoVkNeverDestroyed(const ZoVkNeverDestroyed&) = delete;
    ZoVkNeverDestroyed& operator=(const ZoVkNeverDestroyed&) = delete;

    // A constant address: no initialisation guard, no load.
    T* Get() { return std::launder(reinterpret_cast<T*>(storage_)); }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace vulkan::zovk
