// Instance and device creation and destruction: linking into the loader's chain,
// deciding whether a processor serves the object, adding the extensions its hooks need.
#include <sys/prctl.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <vulkan/vk_layer.h>

#include "app/zovk_factory.h"
#include "app/zovk_processor_base.h"
#include "layer/zovk_context_manager.h"
#include "layer/zovk_device_features.h"
#include "layer/zovk_extension_catalog.h"
#include "settings/zovk_log.h"

// Offered by platforms whose loader answers pre-instance queries itself, for the whole
// chain; absent elsewhere (a weak reference then reads as null). Asking the next layer is
// no substitute there: Khronos-style layers answer a null layer name with
// VK_ERROR_LAYER_NOT_PRESENT, and the bottom resolver answers nothing without an instance.
extern "C" PFN_vkVoidFunction ZoVkPlatformPreInstanceProcAddr(const char* pName) __attribute__((weak));

namespace vulkan::zovk {

namespace {

PFN_vkEnumerateInstanceExtensionProperties NextEnumerateInstanceExtensions(PFN_vkGetInstanceProcAddr next) {
    PFN_vkVoidFunction function = nullptr;
    if (ZoVkPlatformPreInstanceProcAddr != nullptr) {
        function = ZoVkPlatformPreInstanceProcAddr("vkEnumerateInstanceExtensionProperties");
    }
    if (function == nullptr) {
        function = next(VK_NULL_HANDLE, "vkEnumerateInstanceExtensionProperties");
    }
    return reinterpret_cast<PFN_vkEnumerateInstanceExtensionProperties>(function);
}

template <typename LinkInfo, typename CreateInfo>
LinkInfo* FindLayerChainElement(const CreateInfo* pCreateInfo, VkStructureType sType, VkLayerFunction function) {
    for (auto* p = static_cast<const VkBaseInStructure*>(pCreateInfo->pNext); p != nullptr; p = p->pNext) {
        auto* element = reinterpret_cast<LinkInfo*>(const_cast<VkBaseInStructure*>(p));
        if (p->sType == sType && element->function == function) {
            return element;
        }
    }
    return nullptr;
}

template <typename LinkInfo, typename CreateInfo>
LinkInfo* FindLayerLink(const CreateInfo* pCreateInfo, VkStructureType sType) {
    return FindLayerChainElement<LinkInfo>(pCreateInfo, sType, VK_LAYER_LINK_INFO);
}

// Whether the calling thread is the one the configuration names.
bool OnRenderThread(const app::ZoVkProcessorDataBase& data) {
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return data.IsRenderThread(name);
}

bool Contains(const std::vector<const char*>& names, const std::string& name) {
    return std::any_of(names.begin(), names.end(),
                       [&](const char* n) { return n != nullptr && name == n; });
}

bool Contains(const std::vector<VkExtensionProperties>& properties, const std::string& name) {
    return std::any_of(properties.begin(), properties.end(),
                       [&](const VkExtensionProperties& p) { return name == p.extensionName; });
}

template <typename Enumerate, typename... Args>
std::vector<VkExtensionProperties> EnumerateExtensions(Enumerate enumerate, Args... args) {
    std::vector<VkExtensionProperties> properties;
    if (enumerate == nullptr) {
        return properties;
    }
    uint32_t count = 0;
    if (enumerate(args..., nullptr, &count, nullptr) < 0) {
        return properties;
    }
    properties.resize(count);
    if (enumerate(args..., nullptr, &count, properties.data()) < 0) {
        count = 0;
    }
    properties.resize(count);
    return properties;
}

// The function a missing-function check asks about: whether it cannot be had, given
// what the next layer offers; extensions it needs and the application did not enable
// are collected on the way.
bool MissingFunction(const std::string& name, bool wantInstanceLevel, bool checkAvailable,
                     const std::vector<VkExtensionProperties>& available, const std::vector<const char*>& enabled,
                     std::set<std::string>& toAdd) {
    const VkExtensionFunctionInfo& info = GetExtensionFunctionInfo(name);
    if ((info.instanceLevel != 0) != wantInstanceLevel || info.extensions.empty()) {
        return false;
    }
    for (const std::string& extension : info.extensions) {
        if (checkAvailable && !Contains(available, extension)) {
            return true;
        }
        if (!Contains(enabled, extension)) {
            toAdd.insert(extension);
        }
    }
    return false;
}

std::vector<const char*> EnabledNames(const char* const* names, uint32_t count) {
    return std::vector<const char*>(names, names + (names != nullptr ? count : 0));
}

std::vector<const char*> EnabledWith(const char* const* names, uint32_t count, const std::set<std::string>& toAdd) {
    std::vector<const char*> enabled = EnabledNames(names, count);
    for (const std::string& name : toAdd) {
        enabled.push_back(name.c_str());
    }
    return enabled;
}

// The processor's pre and post hooks around the next layer's destroy function (resolved
// when the object was recorded); the processor is kept alive for the whole call.
template <typename Handle, typename Destroy>
void DestroyThroughChain(Handle handle, const VkAllocationCallbacks* pAllocator,
                         std::shared_ptr<app::ZoVkProcessorBase> processor, Destroy destroy,
                         void (app::ZoVkProcessorBase::*pre)(Handle, const VkAllocationCallbacks*),
                         void (app::ZoVkProcessorBase::*post)(Handle, const VkAllocationCallbacks*)) {
    if (processor) {
        (processor.get()->*pre)(handle, pAllocator);
    }
    if (destroy != nullptr) {
        destroy(handle, pAllocator);
    }
    if (processor) {
        (processor.get()->*post)(handle, pAllocator);
    }
}

}  // namespace

VkResult ZoVkContextManager::CreateInstanceUnhooked(PFN_vkCreateInstance nextCreateInstance,
                                                    const VkInstanceCreateInfo* pCreateInfo,
                                                    const VkAllocationCallbacks* pAllocator, VkInstance* pInstance,
                                                    PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr,
                                                    uint64_t apiVersion) {
    const VkResult result = nextCreateInstance(pCreateInfo, pAllocator, pInstance);
    // A failed create leaves no valid handle to record.
    if (result >= 0 && *pInstance != VK_NULL_HANDLE) {
        InitInstanceInfo(*pInstance, nextGetInstanceProcAddr, apiVersion, nullptr, false);
    }
    return result;
}

VkResult ZoVkContextManager::CreateInstanceHooked(const VkInstanceCreateInfo* pCreateInfo,
                                                  const VkAllocationCallbacks* pAllocator, VkInstance* pInstance) {
    auto* link = FindLayerLink<VkLayerInstanceCreateInfo>(pCreateInfo, VK_STRUCTURE_TYPE_LOADER_INSTANCE_CREATE_INFO);
    if (link == nullptr || link->u.pLayerInfo == nullptr) {
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    const PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr = link->u.pLayerInfo->pfnNextGetInstanceProcAddr;
    link->u.pLayerInfo = link->u.pLayerInfo->pNext;
    const auto nextCreateInstance =
        reinterpret_cast<PFN_vkCreateInstance>(nextGetInstanceProcAddr(VK_NULL_HANDLE, "vkCreateInstance"));
    if (nextCreateInstance == nullptr) {
        ZOVK_LOGE("the next layer has no vkCreateInstance");
        return VK_ERROR_INITIALIZATION_FAILED;
    }

    // The served path always runs at Vulkan 1.2 or later: the hooks use its functions.
    const VkApplicationInfo* appInfo = pCreateInfo->pApplicationInfo;
    const uint32_t requested = appInfo != nullptr ? appInfo->apiVersion : VK_API_VERSION_1_0;
    const uint64_t apiVersion = std::max<uint32_t>(requested, VK_API_VERSION_1_2);
    auto unhooked = [&] {
        return CreateInstanceUnhooked(nextCreateInstance, pCreateInfo, pAllocator, pInstance,
                                      nextGetInstanceProcAddr, apiVersion);
    };

    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    if (settings->CheckRenderThread() && !OnRenderThread(*settings->GetProcessorData())) {
        return unhooked();
    }
    if (!settings->HasHookFlags(kHookModulesConfigured)) {
        return unhooked();
    }

    VkInstanceCreateInfo createInfo = *pCreateInfo;
    VkApplicationInfo applicationInfo = appInfo != nullptr ? *appInfo : VkApplicationInfo{};
    applicationInfo.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    applicationInfo.apiVersion = static_cast<uint32_t>(apiVersion);
    createInfo.pApplicationInfo = &applicationInfo;

    const bool checkAvailable = !settings->IsDebuggable();
    std::vector<VkExtensionProperties> available;
    if (checkAvailable) {
        available = EnumerateExtensions(NextEnumerateInstanceExtensions(nextGetInstanceProcAddr));
    }
    const std::vector<const char*> enabled =
        EnabledNames(pCreateInfo->ppEnabledExtensionNames, pCreateInfo->enabledExtensionCount);
    std::set<std::string> toAdd;

    settings->SetHookFlags(kHookExtensionsReady);
    CheckInstanceExtensionFunctions([&](const std::string& name) {
        return MissingFunction(name, true, checkAvailable, available, enabled, toAdd);
    });
    if (!settings->HasHookFlags(kHookModulesConfigured | kHookExtensionsReady)) {
        return unhooked();
    }

    std::shared_ptr<app::ZoVkProcessorBase> processor = app::CreateVkProcessor();
    if (!processor) {
        settings->ClearHookFlags(kHookExtensionsReady);
        return unhooked();
    }
    processor->PreCreateInstance(&createInfo, pAllocator, pInstance);

    const std::vector<const char*> extensions = EnabledWith(pCreateInfo->ppEnabledExtensionNames,
                                                            pCreateInfo->enabledExtensionCount, toAdd);
    createInfo.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    createInfo.ppEnabledExtensionNames = extensions.data();
    ZOVK_LOGD("instance served at API version %u.%u (asked for %u.%u)", VK_API_VERSION_MAJOR(applicationInfo.apiVersion),
              VK_API_VERSION_MINOR(applicationInfo.apiVersion), VK_API_VERSION_MAJOR(requested),
              VK_API_VERSION_MINOR(requested));
    for (const std::string& name : toAdd) {
        ZOVK_LOGD("instance extension %s added", name.c_str());
    }

    const VkResult result = nextCreateInstance(&createInfo, pAllocator, pInstance);
    if (result < 0 || *pInstance == VK_NULL_HANDLE) {
        // Nothing to record; the processor's modules go with it.
        processor->OnEnd();
        return result;
    }
    InitInstanceInfo(*pInstance, nextGetInstanceProcAddr, apiVersion, std::move(processor), true);
    InitInstanceExtensionFunctions(*pInstance);
    ZoVkInstanceInfo* record = GetInstanceInfoWithLock(GetDispatchKey(*pInstance));
    if (record != nullptr) {
        record->surfaceEnabled = Contains(extensions, VK_KHR_SURFACE_EXTENSION_NAME);
    }
    if (record != nullptr && record->processor) {
        record->processor->PostCreateInstance(&createInfo, pAllocator, pInstance, result);
    }
    return result;
}

VkResult ZoVkContextManager::CreateDeviceHooked(VkPhysicalDevice physicalDevice, const VkDeviceCreateInfo* pCreateInfo,
                                                const VkAllocationCallbacks* pAllocator, VkDevice* pDevice) {
    auto* link = FindLayerLink<VkLayerDeviceCreateInfo>(pCreateInfo, VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO);
    if (link == nullptr || link->u.pLayerInfo == nullptr) {
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    const PFN_vkGetDeviceProcAddr nextGetDeviceProcAddr = link->u.pLayerInfo->pfnNextGetDeviceProcAddr;
    link->u.pLayerInfo = link->u.pLayerInfo->pNext;
    const auto* loaderData = FindLayerChainElement<VkLayerDeviceCreateInfo>(
        pCreateInfo, VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO, VK_LOADER_DATA_CALLBACK);
    const PFN_vkSetDeviceLoaderData setDeviceLoaderData =
        loaderData != nullptr ? loaderData->u.pfnSetDeviceLoaderData : nullptr;

    ZoVkInstanceInfo* instanceRecord = GetInstanceInfoWithLock(GetDispatchKey(physicalDevice));
    if (instanceRecord == nullptr) {
        ZOVK_LOGE("vkCreateDevice on a physical device of an instance the layer never saw");
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    // Resolved when the instance was recorded (see ResolveLifecycleFunctions).
    const PFN_vkCreateDevice nextCreateDevice = instanceRecord->functions.vkCreateDevice;
    if (nextCreateDevice == nullptr) {
        ZOVK_LOGE("the next layer has no vkCreateDevice");
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    auto unhooked = [&] {
        const VkResult result = nextCreateDevice(physicalDevice, pCreateInfo, pAllocator, pDevice);
        if (result >= 0 && *pDevice != VK_NULL_HANDLE) {
            InitDeviceInfo(physicalDevice, *pDevice, nextGetDeviceProcAddr, instanceRecord->apiVersion,
                           instanceRecord->processor, false, setDeviceLoaderData);
        }
        return result;
    };

    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    if (!instanceRecord->hooked || !settings->HasHookFlags(kHookModulesConfigured | kHookExtensionsReady)) {
        return unhooked();
    }
    // The present hooks need VK_KHR_swapchain, which needs VK_KHR_surface on the instance
    // (VUID-vkCreateDevice-ppEnabledExtensionNames-01387); a device that cannot present is left alone.
    if (!instanceRecord->surfaceEnabled) {
        ZOVK_LOGW("the instance has no VK_KHR_surface: device not served");
        return unhooked();
    }

    const std::vector<VkExtensionProperties> available =
        EnumerateExtensions(instanceRecord->functions.vkEnumerateDeviceExtensionProperties, physicalDevice);
    const std::vector<const char*> enabled =
        EnabledNames(pCreateInfo->ppEnabledExtensionNames, pCreateInfo->enabledExtensionCount);
    std::set<std::string> toAdd;
    CheckDeviceExtensionFunctions([&](const std::string& name) {
        return MissingFunction(name, false, true, available, enabled, toAdd);
    });
    if (!settings->HasHookFlags(kHookModulesConfigured | kHookExtensionsReady)) {
        return unhooked();
    }

    VkDeviceCreateInfo createInfo = *pCreateInfo;
    const std::vector<const char*> extensions = EnabledWith(pCreateInfo->ppEnabledExtensionNames,
                                                            pCreateInfo->enabledExtensionCount, toAdd);
    createInfo.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    createInfo.ppEnabledExtensionNames = extensions.data();
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR shadingRateFeatures{};
    const bool shadingRate =
        ChainShadingRateFeatures(*instanceRecord, physicalDevice, extensions, createInfo, shadingRateFeatures);
    ZOVK_LOGD("device served");
    for (const std::string& name : toAdd) {
        ZOVK_LOGD("device extension %s added", name.c_str());
    }

    const VkResult result = nextCreateDevice(physicalDevice, &createInfo, pAllocator, pDevice);
    if (result < 0 || *pDevice == VK_NULL_HANDLE) {
        return result;
    }
    InitDeviceInfo(physicalDevice, *pDevice, nextGetDeviceProcAddr, instanceRecord->apiVersion,
                   instanceRecord->processor, true, setDeviceLoaderData);
    InitDeviceExtensionFunctions(*pDevice);
    if (ZoVkDeviceInfo* record = GetDeviceInfoWithLock(GetDispatchKey(*pDevice))) {
        record->shadingRateOff = !shadingRate;
    }
    if (instanceRecord->processor) {
        instanceRecord->processor->PostCreateDevice(physicalDevice, &createInfo, pAllocator, pDevice, result);
    }
    return result;
}

void ZoVkContextManager::DestroyDeviceHooked(VkDevice device, const VkAllocationCallbacks* pAllocator) {
    if (device == VK_NULL_HANDLE) {
        return;
    }
    void* key = GetDispatchKey(device);
    ZoVkDeviceInfo* record = GetDeviceInfoWithLock(key);
    if (record == nullptr) {
        return;
    }
    DestroyThroughChain(device, pAllocator, record->processor, record->functions.vkDestroyDevice,
                        &app::ZoVkProcessorBase::PreDestroyDevice, &app::ZoVkProcessorBase::PostDestroyDevice);
    EraseDeviceInfo(key);
}

void ZoVkContextManager::DestroyInstanceHooked(VkInstance instance, const VkAllocationCallbacks* pAllocator) {
    if (instance == VK_NULL_HANDLE) {
        return;
    }
    void* key = GetDispatchKey(instance);
    ZoVkInstanceInfo* record = GetInstanceInfoWithLock(key);
    if (record == nullptr) {
        return;
    }
    DestroyThroughChain(instance, pAllocator, record->processor, record->functions.vkDestroyInstance,
                        &app::ZoVkProcessorBase::PreDestroyInstance, &app::ZoVkProcessorBase::PostDestroyInstance);
    EraseInstanceInfo(key);
}

}  // namespace vulkan::zovk
