#pragma once

#include <vulkan/vulkan_core.h>

#include "layer/zovk_stub.h"

// The functions the platform loader finds by name in the library.
#define ZOVK_EXPORT extern "C" __attribute__((visibility("default")))

ZOVK_EXPORT void* createInstance();
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkCreateInstance(const VkInstanceCreateInfo* pCreateInfo,
                                                              const VkAllocationCallbacks* pAllocator,
                                                              VkInstance* pInstance);
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkCreateDevice(VkPhysicalDevice physicalDevice,
                                                            const VkDeviceCreateInfo* pCreateInfo,
                                                            const VkAllocationCallbacks* pAllocator,
                                                            VkDevice* pDevice);
ZOVK_EXPORT VKAPI_ATTR void VKAPI_CALL ZoVkDestroyInstance(VkInstance instance,
                                                           const VkAllocationCallbacks* pAllocator);
ZOVK_EXPORT VKAPI_ATTR void VKAPI_CALL ZoVkDestroyDevice(VkDevice device, const VkAllocationCallbacks* pAllocator);
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateInstanceLayerProperties(uint32_t* pCount,
                                                                                VkLayerProperties* pProperties);
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateInstanceExtensionProperties(
    const char* pLayerName, uint32_t* pCount, VkExtensionProperties* pProperties);
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateDeviceLayerProperties(VkPhysicalDevice physicalDevice,
                                                                              uint32_t* pCount,
                                                                              VkLayerProperties* pProperties);
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkGetDeviceLayerProperties(VkPhysicalDevice physicalDevice,
                                                                        uint32_t* pCount,
                                                                        VkLayerProperties* pProperties);
ZOVK_EXPORT VKAPI_ATTR VkResult VKAPI_CALL ZoVkEnumerateDeviceExtensionProperties(
    VkPhysicalDevice physicalDevice, const char* pLayerName, uint32_t* pCount, VkExtensionProperties* pProperties);
ZOVK_EXPORT VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL ZoVkGetInstanceProcAddr(VkInstance instance, const char* pName);
ZOVK_EXPORT VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL ZoVkGetDeviceProcAddr(VkDevice device, const char* pName);

ZOVK_EXPORT vulkan::ZoVkStubImpl impl;

// The layer properties record that every layer-properties query copies.
extern const VkLayerProperties kZoVkLayerProperties;
