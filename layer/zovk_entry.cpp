// The layer's exported entry points. Each is thin: it answers from fixed data or asks
// the settings and forwards to the context manager. Nothing is thrown past them.
#include "layer/zovk_entry.h"

#include <cstring>
#include <exception>

#include "layer/zovk_context_manager.h"
#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

using vulkan::zovk::kHookAll;
using vulkan::zovk::ZoVkContextManager;
using vulkan::zovk::ZoVkSettings;

const VkLayerProperties kZoVkLayerProperties = {
    ZOVK_LAYER_NAME,
    VK_MAKE_VERSION(1, 0, 0),
    VK_MAKE_VERSION(1, 33, 0),
    "torvi",
};

vulkan::ZoVkStubImpl impl;

namespace {

// The layer never throws into the application: an exception (memory exhaustion, in
// practice) is logged and the call answers `fallback`.
template <typename T, typename F>
T Guarded(const char* what, T fallback, F&& body) {
    try {
        return body();
    } catch (const std::exception& e) {
        ZOVK_LOGE("%s failed: %s", what, e.what());
    } catch (...) {
        ZOVK_LOGE("%s failed", what);
    }
    return fallback;
}

template <typename F>
void GuardedVoid(const char* what, F&& body) {
    Guarded(what, 0, [&] {
        body();
        return 0;
    });
}

VkResult LayerProperties(uint32_t* pCount, VkLayerProperties* pProperties) {
    if (pCount == nullptr) {
        return VK_INCOMPLETE;
    }
    if (pProperties == nullptr) {
        *pCount = 1;
        return VK_SUCCESS;
    }
    if (*pCount == 0) {
        return VK_INCOMPLETE;
    }
    // The count is left as the caller passed it.
    std::memcpy(pProperties, &kZoVkLayerProperties, sizeof(VkLayerProperties));
    return VK_SUCCESS;
}

#define ZOVK_ANSWER(name, fn)                                     \
    if (std::strcmp(pName, name) == 0) {                          \
        return reinterpret_cast<PFN_vkVoidFunction>(fn);          \
    }

}  // namespace

namespace vulkan {

const char* ZoVkStubImpl::getLayerName() {
    return ZoVkSettings::GetInstance()->GetLayerName().c_str();
}

bool ZoVkStubImpl::isEnabled() {
    return ZoVkSettings::GetInstance()->HasHookFlags(zovk::kHookConfigAccepted);
}

bool ZoVkStubImpl::isDebuggable() {
    return ZoVkSettings::GetInstance()->IsDebuggable();
}

}  // namespace vulkan

void* createInstance() {
    GuardedVoid("createInstance", [] { ZoVkSettings::GetInstance()->InitDataInfo(); });
    return &impl;
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkCreateInstance(const VkInstanceCreateInfo* pCreateInfo,
                                                  const VkAllocationCallbacks* pAllocator, VkInstance* pInstance) {
    return Guarded("vkCreateInstance", VK_ERROR_OUT_OF_HOST_MEMORY, [&] {
        return ZoVkContextManager::GetInstance()->CreateInstanceHooked(pCreateInfo, pAllocator, pInstance);
    });
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkCreateDevice(VkPhysicalDevice physicalDevice, const VkDeviceCreateInfo* pCreateInfo,
                                                const VkAllocationCallbacks* pAllocator, VkDevice* pDevice) {
    return Guarded("vkCreateDevice", VK_ERROR_OUT_OF_HOST_MEMORY, [&] {
        return ZoVkContextManager::GetInstance()->CreateDeviceHooked(physicalDevice, pCreateInfo, pAllocator,
                                                                     pDevice);
    });
}

VKAPI_ATTR void VKAPI_CALL ZoVkDestroyInstance(VkInstance instance, const VkAllocationCallbacks* pAllocator) {
    GuardedVoid("vkDestroyInstance",
                [&] { ZoVkContextManager::GetInstance()->DestroyInstanceHooked(instance, pAllocator); });
}

VKAPI_ATTR void VKAPI_CALL ZoVkDestroyDevice(VkDevice device, const VkAllocationCallbacks* pAllocator) {
    GuardedVoid("vkDestroyDevice", [&] { ZoVkContextManager::GetInstance()->DestroyDeviceHooked(device, pAllocator); });
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateInstanceLayerProperties(uint32_t* pCount,
                                                                    VkLayerProperties* pProperties) {
    return LayerProperties(pCount, pProperties);
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateDeviceLayerProperties(VkPhysicalDevice, uint32_t* pCount,
                                                                  VkLayerProperties* pProperties) {
    return LayerProperties(pCount, pProperties);
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkGetDeviceLayerProperties(VkPhysicalDevice, uint32_t* pCount,
                                                            VkLayerProperties* pProperties) {
    return LayerProperties(pCount, pProperties);
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateInstanceExtensionProperties(const char* pLayerName, uint32_t* pCount,
                                                                        VkExtensionProperties*) {
    if (pLayerName == nullptr || ZoVkSettings::GetInstance()->GetLayerName() != pLayerName) {
        return VK_ERROR_LAYER_NOT_PRESENT;
    }
    if (pCount != nullptr) {
        *pCount = 0;
    }
    return VK_SUCCESS;
}

VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateDeviceExtensionProperties(VkPhysicalDevice physicalDevice,
                                                                      const char* pLayerName, uint32_t* pCount,
                                                                      VkExtensionProperties* pProperties) {
    if (pLayerName != nullptr && ZoVkSettings::GetInstance()->GetLayerName() == pLayerName) {
        if (pCount != nullptr) {
            *pCount = 0;
        }
        return VK_SUCCESS;
    }
    if (physicalDevice == VK_NULL_HANDLE) {
        return VK_SUCCESS;
    }
    bool found = false;
    const VkResult result = ZoVkContextManager::GetInstance()->GetNextDeviceExtensionProperties(
        physicalDevice, pLayerName, pCount, pProperties, found);
    if (found) {
        return result;
    }
    if (pCount != nullptr) {
        *pCount = 0;
    }
    return VK_SUCCESS;
}

VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL ZoVkGetInstanceProcAddr(VkInstance instance, const char* pName) {
    ZOVK_ANSWER("vkGetInstanceProcAddr", ZoVkGetInstanceProcAddr);
    ZOVK_ANSWER("vkEnumerateInstanceExtensionProperties", ZoVkEnumerateInstanceExtensionProperties);
    ZOVK_ANSWER("vkEnumerateInstanceLayerProperties", ZoVkEnumerateInstanceLayerProperties);
    ZOVK_ANSWER("vkCreateInstance", ZoVkCreateInstance);
    if (instance == VK_NULL_HANDLE) {
        return nullptr;
    }
    ZOVK_ANSWER("vkDestroyInstance", ZoVkDestroyInstance);
    ZOVK_ANSWER("vkEnumerateDeviceLayerProperties", ZoVkEnumerateDeviceLayerProperties);
    ZOVK_ANSWER("vkEnumerateDeviceExtensionProperties", ZoVkEnumerateDeviceExtensionProperties);
    ZOVK_ANSWER("vkGetDeviceProcAddr", ZoVkGetDeviceProcAddr);
    ZOVK_ANSWER("vkCreateDevice", ZoVkCreateDevice);
    ZOVK_ANSWER("vkDestroyDevice", ZoVkDestroyDevice);
    return Guarded("vkGetInstanceProcAddr", PFN_vkVoidFunction{nullptr}, [&] {
        ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
        return ZoVkSettings::GetInstance()->HasHookFlags(kHookAll) ? manager->GetHookedInstanceProcAddr(instance, pName)
                                                                   : manager->GetNextInstanceProcAddr(instance, pName);
    });
}

VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL ZoVkGetDeviceProcAddr(VkDevice device, const char* pName) {
    ZOVK_ANSWER("vkGetDeviceProcAddr", ZoVkGetDeviceProcAddr);
    ZOVK_ANSWER("vkCreateDevice", ZoVkCreateDevice);
    ZOVK_ANSWER("vkDestroyDevice", ZoVkDestroyDevice);
    if (device == VK_NULL_HANDLE) {
        return nullptr;
    }
    return Guarded("vkGetDeviceProcAddr", PFN_vkVoidFunction{nullptr}, [&] {
        ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
        return ZoVkSettings::GetInstance()->HasHookFlags(kHookAll) ? manager->GetHookedDeviceProcAddr(device, pName)
                                                                   : manager->GetNextDeviceProcAddr(device, pName);
    });
}
