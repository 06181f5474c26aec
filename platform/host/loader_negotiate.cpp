// Linux hosts: the Khronos loader does not know the vendor createInstance protocol, so
// the library also offers the standard negotiation, doing what the vendor loader does
// first (createInstance) before handing over the layer's resolvers.
#include <cstring>
#include <mutex>

#include <vulkan/vk_layer.h>

extern "C" {
void* createInstance();
VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL ZoVkGetInstanceProcAddr(VkInstance instance, const char* pName);
VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL ZoVkGetDeviceProcAddr(VkDevice device, const char* pName);
VKAPI_ATTR VkResult VKAPI_CALL ZoVkCreateDevice(VkPhysicalDevice physicalDevice, const VkDeviceCreateInfo* pCreateInfo,
                                                const VkAllocationCallbacks* pAllocator, VkDevice* pDevice);
}

namespace {

// Layers stacked above on Linux (vkBasalt, MangoHud) ask their next resolver for
// vkCreateDevice without an instance, as the Khronos loader's own resolver allows.
VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL HostGetInstanceProcAddr(VkInstance instance, const char* pName) {
    if (instance == VK_NULL_HANDLE && std::strcmp(pName, "vkCreateDevice") == 0) {
        return reinterpret_cast<PFN_vkVoidFunction>(ZoVkCreateDevice);
    }
    return ZoVkGetInstanceProcAddr(instance, pName);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) VKAPI_ATTR VkResult VKAPI_CALL
vkNegotiateLoaderLayerInterfaceVersion(VkNegotiateLayerInterface* pVersionStruct) {
    if (pVersionStruct == nullptr || pVersionStruct->sType != LAYER_NEGOTIATE_INTERFACE_STRUCT) {
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    // Interface 2 is the first that hands the resolvers over in this structure.
    if (pVersionStruct->loaderLayerInterfaceVersion < 2) {
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    static std::once_flag once;
    std::call_once(once, [] { createInstance(); });
    pVersionStruct->loaderLayerInterfaceVersion = 2;
    pVersionStruct->pfnGetInstanceProcAddr = HostGetInstanceProcAddr;
    pVersionStruct->pfnGetDeviceProcAddr = ZoVkGetDeviceProcAddr;
    pVersionStruct->pfnGetPhysicalDeviceProcAddr = nullptr;
    return VK_SUCCESS;
}
