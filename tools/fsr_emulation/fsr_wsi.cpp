#include "fsr_wsi.h"

#include <dlfcn.h>
#include <vulkan/vk_icd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace fsr::wsi {
namespace {

void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Log(const char* format, ...) {
    std::fputs("zovk_fsr_emulation: ", stderr);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
}

// Non-dispatchable handles are pointers or 64-bit integers by platform.
template <typename Handle>
uint64_t Id(Handle handle) {
    return (uint64_t)(uintptr_t)handle;
}
template <typename Handle>
Handle AsHandle(const void* record) {
    return (Handle)(uintptr_t)record;
}

// The counted-array convention: the count alone, or up to *pCount entries and VK_INCOMPLETE.
template <typename Set>
VkResult Fill(uint32_t total, uint32_t* pCount, bool writing, Set set) {
    if (!writing) {
        *pCount = total;
        return VK_SUCCESS;
    }
    const uint32_t n = std::min(*pCount, total);
    for (uint32_t i = 0; i < n; ++i) set(i);
    *pCount = n;
    return n < total ? VK_INCOMPLETE : VK_SUCCESS;
}

// A call about a surface or swapchain the layer did not make, where nothing below serves it.
VkResult Missing(const char* call) {
    Log("%s: nothing below the layer serves it for a surface the layer did not make", call);
    return VK_ERROR_SURFACE_LOST_KHR;
}

const VkSurfaceFormatKHR kFormats[] = {{VK_FORMAT_B8G8R8A8_UNORM, VK_COLOR_SPACE_SRGB_NONLINEAR_KHR},
                                       {VK_FORMAT_B8G8R8A8_SRGB, VK_COLOR_SPACE_SRGB_NONLINEAR_KHR}};
constexpr uint32_t kFormatCount = sizeof(kFormats) / sizeof(kFormats[0]);
constexpr uint32_t kMinImages = 2, kMaxImages = 16;

#define FSR_WSI_LOAD(table, gpa, object, name) table.name = reinterpret_cast<PFN_vk##name>(gpa(object, "vk" #name))

}  // namespace

std::optional<Mode> ParseMode(const char* value) {
    if (value == nullptr || std::strcmp(value, "") == 0 || std::strcmp(value, "off") == 0) return Mode::kOff;
    if (std::strcmp(value, "headless") == 0) return Mode::kHeadless;
    if (std::strcmp(value, "auto") == 0) return Mode::kAuto;
    return std::nullopt;
}

std::optional<std::vector<std::string>> DriverInstanceExtensions() {
    // Only the loader's own entry point answers this; a layer's chain has no way down to it. The
    // program has the loader open already: NOLOAD never opens a second one.
    void* loader = dlopen("libvulkan.so.1", RTLD_NOW | RTLD_NOLOAD);
    void* symbol = dlsym(loader != nullptr ? loader : RTLD_DEFAULT, "vkEnumerateInstanceExtensionProperties");
    auto enumerate = reinterpret_cast<PFN_vkEnumerateInstanceExtensionProperties>(symbol);
    std::optional<std::vector<std::string>> names;
    uint32_t count = 0;
    std::vector<VkExtensionProperties> all;
    if (enumerate != nullptr && enumerate(nullptr, &count, nullptr) == VK_SUCCESS) {
        all.resize(count);
        if (enumerate(nullptr, &count, all.data()) >= VK_SUCCESS) {
            names.emplace();
            for (uint32_t i = 0; i < count; ++i) names->push_back(all[i].extensionName);
        }
    }
    if (loader != nullptr) dlclose(loader);
    return names;
}

InstancePlan PlanInstance(Mode mode, const std::optional<std::vector<std::string>>& driver, uint32_t count,
                          const char* const* names) {
    InstancePlan plan;
    plan.names.assign(names, names + count);
    auto driverHas = [&](const char* name) {
        return !driver || std::find(driver->begin(), driver->end(), name) != driver->end();
    };
    auto named = [](const char* name) {
        return [name](const char* n) { return std::strcmp(n, name) == 0; };
    };
    const bool asked = std::any_of(names, names + count, named(VK_EXT_HEADLESS_SURFACE_EXTENSION_NAME));
    plan.serve = asked && (mode == Mode::kHeadless ||
                           (mode == Mode::kAuto && !driverHas(VK_EXT_HEADLESS_SURFACE_EXTENSION_NAME)));
    if (!plan.serve) return plan;
    auto end = std::remove_if(plan.names.begin(), plan.names.end(), named(VK_EXT_HEADLESS_SURFACE_EXTENSION_NAME));
    // The driver keeps VK_KHR_surface where it has it: the program's other surfaces are its own.
    if (!driverHas(VK_KHR_SURFACE_EXTENSION_NAME)) {
        end = std::remove_if(plan.names.begin(), end, named(VK_KHR_SURFACE_EXTENSION_NAME));
    }
    plan.names.erase(end, plan.names.end());
    return plan;
}

// ---------------------------------------------------------------------------------------------
// Surfaces

Instance::Instance(VkInstance instance, PFN_vkGetInstanceProcAddr gipa) {
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceProperties);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceQueueFamilyProperties);
    FSR_WSI_LOAD(next_, gipa, instance, DestroySurfaceKHR);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceSurfaceSupportKHR);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceSurfaceCapabilitiesKHR);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceSurfaceCapabilities2KHR);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceSurfaceFormatsKHR);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceSurfaceFormats2KHR);
    FSR_WSI_LOAD(next_, gipa, instance, GetPhysicalDeviceSurfacePresentModesKHR);
}

bool Instance::Owns(VkSurfaceKHR surface) const {
    std::lock_guard<std::mutex> lock(lock_);
    return surfaces_.count(Id(surface)) != 0;
}

VkResult Instance::CreateSurface(VkSurfaceKHR* pSurface) {
    auto surface = std::make_unique<Surface>();
    *pSurface = AsHandle<VkSurfaceKHR>(surface.get());
    std::lock_guard<std::mutex> lock(lock_);
    surfaces_[Id(*pSurface)] = std::move(surface);
    return VK_SUCCESS;
}

void Instance::DestroySurface(VkInstance instance, VkSurfaceKHR surface, const VkAllocationCallbacks* pAllocator) {
    if (surface == VK_NULL_HANDLE) return;
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (surfaces_.erase(Id(surface)) != 0) return;
    }
    if (next_.DestroySurfaceKHR != nullptr) next_.DestroySurfaceKHR(instance, surface, pAllocator);
}

VkResult Instance::Support(VkPhysicalDevice pd, uint32_t family, VkSurfaceKHR surface, VkBool32* pSupported) {
    if (!Owns(surface)) {
        auto next = next_.GetPhysicalDeviceSurfaceSupportKHR;
        return next ? next(pd, family, surface, pSupported) : Missing("vkGetPhysicalDeviceSurfaceSupportKHR");
    }
    uint32_t count = 0;
    next_.GetPhysicalDeviceQueueFamilyProperties(pd, &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    next_.GetPhysicalDeviceQueueFamilyProperties(pd, &count, families.data());
    *pSupported = family < count && (families[family].queueFlags & VK_QUEUE_GRAPHICS_BIT) ? VK_TRUE : VK_FALSE;
    return VK_SUCCESS;
}

VkResult Instance::Capabilities(VkPhysicalDevice pd, VkSurfaceKHR surface, VkSurfaceCapabilitiesKHR* pCaps) {
    if (!Owns(surface)) {
        auto next = next_.GetPhysicalDeviceSurfaceCapabilitiesKHR;
        return next ? next(pd, surface, pCaps) : Missing("vkGetPhysicalDeviceSurfaceCapabilitiesKHR");
    }
    VkPhysicalDeviceProperties props;
    next_.GetPhysicalDeviceProperties(pd, &props);
    *pCaps = {};
    pCaps->minImageCount = kMinImages;
    pCaps->maxImageCount = kMaxImages;
    pCaps->currentExtent = {0xFFFFFFFFu, 0xFFFFFFFFu};  // no window: the swapchain's extent decides
    pCaps->minImageExtent = {1, 1};
    pCaps->maxImageExtent = {props.limits.maxImageDimension2D, props.limits.maxImageDimension2D};
    pCaps->maxImageArrayLayers = 1;
    pCaps->supportedTransforms = VK_SURFACE_TRANSFORM_IDENTITY_BIT_KHR;
    pCaps->currentTransform = VK_SURFACE_TRANSFORM_IDENTITY_BIT_KHR;
    pCaps->supportedCompositeAlpha = VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR;
    pCaps->supportedUsageFlags = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT |
                                 VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_SAMPLED_BIT |
                                 VK_IMAGE_USAGE_INPUT_ATTACHMENT_BIT;
    return VK_SUCCESS;
}

VkResult Instance::Capabilities2(VkPhysicalDevice pd, const VkPhysicalDeviceSurfaceInfo2KHR* pInfo,
                                 VkSurfaceCapabilities2KHR* pCaps) {
    if (!Owns(pInfo->surface)) {
        auto next = next_.GetPhysicalDeviceSurfaceCapabilities2KHR;
        return next ? next(pd, pInfo, pCaps) : Missing("vkGetPhysicalDeviceSurfaceCapabilities2KHR");
    }
    // Structures chained to it are left as they are: none of them applies without a window.
    return Capabilities(pd, pInfo->surface, &pCaps->surfaceCapabilities);
}

VkResult Instance::Formats(VkPhysicalDevice pd, VkSurfaceKHR surface, uint32_t* pCount, VkSurfaceFormatKHR* pFormats) {
    if (!Owns(surface)) {
        auto next = next_.GetPhysicalDeviceSurfaceFormatsKHR;
        return next ? next(pd, surface, pCount, pFormats) : Missing("vkGetPhysicalDeviceSurfaceFormatsKHR");
    }
    return Fill(kFormatCount, pCount, pFormats != nullptr, [&](uint32_t i) { pFormats[i] = kFormats[i]; });
}

VkResult Instance::Formats2(VkPhysicalDevice pd, const VkPhysicalDeviceSurfaceInfo2KHR* pInfo, uint32_t* pCount,
                            VkSurfaceFormat2KHR* pFormats) {
    if (!Owns(pInfo->surface)) {
        auto next = next_.GetPhysicalDeviceSurfaceFormats2KHR;
        return next ? next(pd, pInfo, pCount, pFormats) : Missing("vkGetPhysicalDeviceSurfaceFormats2KHR");
    }
    return Fill(kFormatCount, pCount, pFormats != nullptr,
                [&](uint32_t i) { pFormats[i].surfaceFormat = kFormats[i]; });
}

VkResult Instance::PresentModes(VkPhysicalDevice pd, VkSurfaceKHR surface, uint32_t* pCount, VkPresentModeKHR* pModes) {
    if (!Owns(surface)) {
        auto next = next_.GetPhysicalDeviceSurfacePresentModesKHR;
        return next ? next(pd, surface, pCount, pModes) : Missing("vkGetPhysicalDeviceSurfacePresentModesKHR");
    }
    return Fill(1, pCount, pModes != nullptr, [&](uint32_t) { pModes[0] = VK_PRESENT_MODE_FIFO_KHR; });
}

// ---------------------------------------------------------------------------------------------
// Swapchains

Device::Device(VkDevice device, PFN_vkGetDeviceProcAddr gdpa, const Instance& instance,
               const VkPhysicalDeviceMemoryProperties& memory, uint32_t family)
    : device_(device), instance_(instance), memory_(memory), family_(family) {
    FSR_WSI_LOAD(next_, gdpa, device, CreateImage);
    FSR_WSI_LOAD(next_, gdpa, device, DestroyImage);
    FSR_WSI_LOAD(next_, gdpa, device, GetImageMemoryRequirements);
    FSR_WSI_LOAD(next_, gdpa, device, AllocateMemory);
    FSR_WSI_LOAD(next_, gdpa, device, FreeMemory);
    FSR_WSI_LOAD(next_, gdpa, device, BindImageMemory);
    FSR_WSI_LOAD(next_, gdpa, device, GetDeviceQueue);
    FSR_WSI_LOAD(next_, gdpa, device, QueueSubmit);
    FSR_WSI_LOAD(next_, gdpa, device, CreateSwapchainKHR);
    FSR_WSI_LOAD(next_, gdpa, device, DestroySwapchainKHR);
    FSR_WSI_LOAD(next_, gdpa, device, GetSwapchainImagesKHR);
    FSR_WSI_LOAD(next_, gdpa, device, AcquireNextImageKHR);
    FSR_WSI_LOAD(next_, gdpa, device, AcquireNextImage2KHR);
    FSR_WSI_LOAD(next_, gdpa, device, QueuePresentKHR);
}

uint32_t Device::MemoryType(uint32_t typeBits) const {
    for (uint32_t i = 0; i < memory_.memoryTypeCount; ++i) {
        if ((typeBits & (1u << i)) && (memory_.memoryTypes[i].propertyFlags & VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT)) {
            return i;
        }
    }
    for (uint32_t i = 0; i < memory_.memoryTypeCount; ++i) {
        if (typeBits & (1u << i)) return i;
    }
    return UINT32_MAX;
}

void Device::Release(Swapchain& swapchain) {
    for (VkImage image : swapchain.images) next_.DestroyImage(device_, image, nullptr);
    for (VkDeviceMemory memory : swapchain.memories) next_.FreeMemory(device_, memory, nullptr);
    swapchain.images.clear();
    swapchain.memories.clear();
}

VkResult Device::CreateSwapchain(const VkSwapchainCreateInfoKHR* pInfo, const VkAllocationCallbacks* pAllocator,
                                 VkSwapchainKHR* pSwapchain) {
    if (!instance_.Owns(pInfo->surface)) {
        auto next = next_.CreateSwapchainKHR;
        return next ? next(device_, pInfo, pAllocator, pSwapchain) : Missing("vkCreateSwapchainKHR");
    }
    VkImageCreateInfo image = {};
    image.sType = VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO;
    if (pInfo->flags & VK_SWAPCHAIN_CREATE_MUTABLE_FORMAT_BIT_KHR) {
        image.flags = VK_IMAGE_CREATE_MUTABLE_FORMAT_BIT | VK_IMAGE_CREATE_EXTENDED_USAGE_BIT;
    }
    image.imageType = VK_IMAGE_TYPE_2D;
    image.format = pInfo->imageFormat;
    image.extent = {pInfo->imageExtent.width, pInfo->imageExtent.height, 1};
    image.mipLevels = 1;
    image.arrayLayers = pInfo->imageArrayLayers;
    image.samples = VK_SAMPLE_COUNT_1_BIT;
    image.tiling = VK_IMAGE_TILING_OPTIMAL;
    // Programs read their frames back with a copy, as from any presentable image they may copy from.
    image.usage = pInfo->imageUsage | VK_IMAGE_USAGE_TRANSFER_SRC_BIT;
    image.sharingMode = pInfo->imageSharingMode;
    image.queueFamilyIndexCount = pInfo->queueFamilyIndexCount;
    image.pQueueFamilyIndices = pInfo->pQueueFamilyIndices;
    image.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;

    auto swapchain = std::make_unique<Swapchain>();
    const uint32_t count = std::clamp(pInfo->minImageCount, kMinImages, kMaxImages);
    for (uint32_t i = 0; i < count; ++i) {
        VkImage made = VK_NULL_HANDLE;
        VkResult result = next_.CreateImage(device_, &image, nullptr, &made);
        if (result == VK_SUCCESS) {
            swapchain->images.push_back(made);
            VkMemoryRequirements needs;
            next_.GetImageMemoryRequirements(device_, made, &needs);
            VkMemoryAllocateInfo alloc = {};
            alloc.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
            alloc.allocationSize = needs.size;
            alloc.memoryTypeIndex = MemoryType(needs.memoryTypeBits);
            VkDeviceMemory memory = VK_NULL_HANDLE;
            result = alloc.memoryTypeIndex == UINT32_MAX ? VK_ERROR_OUT_OF_DEVICE_MEMORY
                                                         : next_.AllocateMemory(device_, &alloc, nullptr, &memory);
            if (result == VK_SUCCESS) {
                swapchain->memories.push_back(memory);
                result = next_.BindImageMemory(device_, made, memory, 0);
            }
        }
        if (result != VK_SUCCESS) {
            Log("vkCreateSwapchainKHR: swapchain image %u of %u (%ux%u, format %d) failed: VkResult %d", i + 1, count,
                image.extent.width, image.extent.height, int(image.format), int(result));
            Release(*swapchain);
            return result;
        }
    }
    *pSwapchain = AsHandle<VkSwapchainKHR>(swapchain.get());
    std::lock_guard<std::mutex> lock(lock_);
    swapchains_[Id(*pSwapchain)] = std::move(swapchain);
    return VK_SUCCESS;
}

void Device::DestroySwapchain(VkSwapchainKHR swapchain, const VkAllocationCallbacks* pAllocator) {
    if (swapchain == VK_NULL_HANDLE) return;
    std::unique_ptr<Swapchain> ours;
    {
        std::lock_guard<std::mutex> lock(lock_);
        auto it = swapchains_.find(Id(swapchain));
        if (it != swapchains_.end()) {
            ours = std::move(it->second);
            swapchains_.erase(it);
        }
    }
    if (ours) {
        Release(*ours);
    } else if (next_.DestroySwapchainKHR != nullptr) {
        next_.DestroySwapchainKHR(device_, swapchain, pAllocator);
    }
}

void Device::DestroyAll() {
    std::lock_guard<std::mutex> lock(lock_);
    for (auto& [id, swapchain] : swapchains_) Release(*swapchain);
    swapchains_.clear();
}

VkResult Device::Images(VkSwapchainKHR swapchain, uint32_t* pCount, VkImage* pImages) {
    std::vector<VkImage> images;
    {
        std::lock_guard<std::mutex> lock(lock_);
        auto it = swapchains_.find(Id(swapchain));
        if (it != swapchains_.end()) images = it->second->images;
    }
    if (images.empty()) {
        auto next = next_.GetSwapchainImagesKHR;
        return next ? next(device_, swapchain, pCount, pImages) : Missing("vkGetSwapchainImagesKHR");
    }
    return Fill(uint32_t(images.size()), pCount, pImages != nullptr, [&](uint32_t i) { pImages[i] = images[i]; });
}

VkResult Device::Submit(VkQueue queue, uint32_t waitCount, const VkSemaphore* waits, VkSemaphore signal,
                        VkFence fence) {
    const std::vector<VkPipelineStageFlags> stages(waitCount, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT);
    VkSubmitInfo submit = {};
    submit.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO;
    submit.waitSemaphoreCount = waitCount;
    submit.pWaitSemaphores = waits;
    submit.pWaitDstStageMask = stages.data();
    submit.signalSemaphoreCount = signal != VK_NULL_HANDLE ? 1 : 0;
    submit.pSignalSemaphores = &signal;
    return next_.QueueSubmit(queue, 1, &submit, fence);
}

bool Device::Owns(VkSwapchainKHR swapchain) {
    std::lock_guard<std::mutex> lock(lock_);
    return swapchains_.count(Id(swapchain)) != 0;
}

VkResult Device::Acquire2(const VkAcquireNextImageInfoKHR* pInfo, uint32_t* pIndex) {
    if (!Owns(pInfo->swapchain)) {
        auto next = next_.AcquireNextImage2KHR;
        return next ? next(device_, pInfo, pIndex) : Missing("vkAcquireNextImage2KHR");
    }
    return Acquire(pInfo->swapchain, pInfo->timeout, pInfo->semaphore, pInfo->fence, pIndex);
}

VkResult Device::Acquire(VkSwapchainKHR swapchain, uint64_t timeout, VkSemaphore semaphore, VkFence fence,
                         uint32_t* pIndex) {
    if (!Owns(swapchain)) {
        auto next = next_.AcquireNextImageKHR;
        return next ? next(device_, swapchain, timeout, semaphore, fence, pIndex) : Missing("vkAcquireNextImageKHR");
    }
    std::lock_guard<std::mutex> lock(lock_);
    auto it = swapchains_.find(Id(swapchain));
    if (it == swapchains_.end()) return VK_ERROR_OUT_OF_DATE_KHR;  // destroyed meanwhile on another thread
    Swapchain& sc = *it->second;
    *pIndex = sc.next;
    sc.next = (sc.next + 1) % uint32_t(sc.images.size());
    if (semaphore == VK_NULL_HANDLE && fence == VK_NULL_HANDLE) return VK_SUCCESS;
    if (acquireQueue_ == VK_NULL_HANDLE) {
        next_.GetDeviceQueue(device_, family_, 0, &acquireQueue_);
        // As the loader does for the program's queues, in case a layer below looks it up by its dispatch.
        if (acquireQueue_ != VK_NULL_HANDLE && *reinterpret_cast<uintptr_t*>(acquireQueue_) == ICD_LOADER_MAGIC) {
            *reinterpret_cast<void**>(acquireQueue_) = *reinterpret_cast<void**>(device_);
        }
    }
    const VkResult result = Submit(acquireQueue_, 0, nullptr, semaphore, fence);
    if (result != VK_SUCCESS) {
        Log("vkAcquireNextImageKHR: the submission that signals the acquire failed: VkResult %d", int(result));
    }
    return result;
}

VkResult Device::Present(VkQueue queue, const VkPresentInfoKHR* pInfo) {
    std::vector<uint32_t> others;  // swapchains of the driver's
    for (uint32_t i = 0; i < pInfo->swapchainCount; ++i) {
        if (!Owns(pInfo->pSwapchains[i])) others.push_back(i);
    }
    auto next = next_.QueuePresentKHR;
    if (others.size() == pInfo->swapchainCount) return next ? next(queue, pInfo) : Missing("vkQueuePresentKHR");
    for (uint32_t i = 0; pInfo->pResults != nullptr && i < pInfo->swapchainCount; ++i) pInfo->pResults[i] = VK_SUCCESS;
    if (others.empty()) {
        if (pInfo->waitSemaphoreCount == 0) return VK_SUCCESS;
        const VkResult result = Submit(queue, pInfo->waitSemaphoreCount, pInfo->pWaitSemaphores, VK_NULL_HANDLE,
                                       VK_NULL_HANDLE);
        if (result != VK_SUCCESS) {
            Log("vkQueuePresentKHR: the submission that waits for the frame failed: VkResult %d", int(result));
        }
        return result;
    }
    // Both kinds at once: the driver's present waits for everything, ours need nothing more.
    // Structures chained per swapchain would no longer line up with the shorter lists: dropped.
    VkPresentInfoKHR down = *pInfo;
    std::vector<VkSwapchainKHR> swapchains;
    std::vector<uint32_t> indices;
    for (uint32_t i : others) {
        swapchains.push_back(pInfo->pSwapchains[i]);
        indices.push_back(pInfo->pImageIndices[i]);
    }
    std::vector<VkResult> results(others.size(), VK_SUCCESS);
    down.pNext = nullptr;
    down.swapchainCount = uint32_t(others.size());
    down.pSwapchains = swapchains.data();
    down.pImageIndices = indices.data();
    down.pResults = results.data();
    const VkResult result = next ? next(queue, &down) : Missing("vkQueuePresentKHR");
    for (size_t k = 0; pInfo->pResults != nullptr && k < others.size(); ++k) pInfo->pResults[others[k]] = results[k];
    return result;
}

}  // namespace fsr::wsi
