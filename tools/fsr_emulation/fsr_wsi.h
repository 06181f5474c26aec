// Headless presentation served by the layer itself, for drivers without VK_EXT_headless_surface
// (NVIDIA's). Surfaces are records only; a swapchain is a set of plain driver images (the usage
// asked for plus TRANSFER_SRC, memory bound); an acquire hands the images out in turn and signals
// through an empty submission; a present only waits. The layers above see every call as they would
// on any driver. ZOVK_FSR_WSI switches it on (README.md); surfaces and swapchains the layer did not
// make go down unchanged.
#pragma once

#include <vulkan/vulkan.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace fsr::wsi {

enum class Mode { kOff, kHeadless, kAuto };

// ZOVK_FSR_WSI: null, "" or "off", "headless", "auto"; nullopt for anything else.
std::optional<Mode> ParseMode(const char* value);

// The instance extensions of the drivers, as the loader lists them without layers; nullopt when
// the loader cannot be asked.
std::optional<std::vector<std::string>> DriverInstanceExtensions();

// What instance creation does: whether the layer serves headless surfaces, and the extension
// names that go down (ours removed). `driver` nullopt: unknown, taken as having everything.
struct InstancePlan {
    bool serve = false;
    std::vector<const char*> names;
};
InstancePlan PlanInstance(Mode mode, const std::optional<std::vector<std::string>>& driver, uint32_t count,
                          const char* const* names);

class Instance {
public:
    Instance(VkInstance instance, PFN_vkGetInstanceProcAddr gipa);
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    bool Owns(VkSurfaceKHR surface) const;
    VkResult CreateSurface(VkSurfaceKHR* pSurface);
    void DestroySurface(VkInstance instance, VkSurfaceKHR surface, const VkAllocationCallbacks* pAllocator);
    VkResult Support(VkPhysicalDevice pd, uint32_t family, VkSurfaceKHR surface, VkBool32* pSupported);
    VkResult Capabilities(VkPhysicalDevice pd, VkSurfaceKHR surface, VkSurfaceCapabilitiesKHR* pCaps);
    VkResult Capabilities2(VkPhysicalDevice pd, const VkPhysicalDeviceSurfaceInfo2KHR* pInfo,
                           VkSurfaceCapabilities2KHR* pCaps);
    VkResult Formats(VkPhysicalDevice pd, VkSurfaceKHR surface, uint32_t* pCount, VkSurfaceFormatKHR* pFormats);
    VkResult Formats2(VkPhysicalDevice pd, const VkPhysicalDeviceSurfaceInfo2KHR* pInfo, uint32_t* pCount,
                      VkSurfaceFormat2KHR* pFormats);
    VkResult PresentModes(VkPhysicalDevice pd, VkSurfaceKHR surface, uint32_t* pCount, VkPresentModeKHR* pModes);

private:
    struct Surface {};
    struct Next {
        PFN_vkGetPhysicalDeviceProperties GetPhysicalDeviceProperties;
        PFN_vkGetPhysicalDeviceQueueFamilyProperties GetPhysicalDeviceQueueFamilyProperties;
        PFN_vkDestroySurfaceKHR DestroySurfaceKHR;
        PFN_vkGetPhysicalDeviceSurfaceSupportKHR GetPhysicalDeviceSurfaceSupportKHR;
        PFN_vkGetPhysicalDeviceSurfaceCapabilitiesKHR GetPhysicalDeviceSurfaceCapabilitiesKHR;
        PFN_vkGetPhysicalDeviceSurfaceCapabilities2KHR GetPhysicalDeviceSurfaceCapabilities2KHR;
        PFN_vkGetPhysicalDeviceSurfaceFormatsKHR GetPhysicalDeviceSurfaceFormatsKHR;
        PFN_vkGetPhysicalDeviceSurfaceFormats2KHR GetPhysicalDeviceSurfaceFormats2KHR;
        PFN_vkGetPhysicalDeviceSurfacePresentModesKHR GetPhysicalDeviceSurfacePresentModesKHR;
    } next_;
    mutable std::mutex lock_;
    // The record's address is the handle: unique among live objects, never a driver's.
    std::unordered_map<uint64_t, std::unique_ptr<Surface>> surfaces_;
};

class Device {
public:
    // `family`: the queue family whose first queue signals acquires.
    Device(VkDevice device, PFN_vkGetDeviceProcAddr gdpa, const Instance& instance,
           const VkPhysicalDeviceMemoryProperties& memory, uint32_t family);
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    VkResult CreateSwapchain(const VkSwapchainCreateInfoKHR* pInfo, const VkAllocationCallbacks* pAllocator,
                             VkSwapchainKHR* pSwapchain);
    void DestroySwapchain(VkSwapchainKHR swapchain, const VkAllocationCallbacks* pAllocator);
    VkResult Images(VkSwapchainKHR swapchain, uint32_t* pCount, VkImage* pImages);
    // The images in turn, without waiting: a present only waits, so every image is free again. The
    // signal goes through the first queue of `family`: a program that submits to that queue on
    // another thread while it acquires would race with it.
    VkResult Acquire(VkSwapchainKHR swapchain, uint64_t timeout, VkSemaphore semaphore, VkFence fence,
                     uint32_t* pIndex);
    VkResult Acquire2(const VkAcquireNextImageInfoKHR* pInfo, uint32_t* pIndex);
    VkResult Present(VkQueue queue, const VkPresentInfoKHR* pInfo);
    // Before the driver's vkDestroyDevice: the swapchains the program left alive.
    void DestroyAll();

private:
    struct Swapchain {
        std::vector<VkImage> images;
        std::vector<VkDeviceMemory> memories;
        uint32_t next = 0;
    };
    struct Next {
        PFN_vkCreateImage CreateImage;
        PFN_vkDestroyImage DestroyImage;
        PFN_vkGetImageMemoryRequirements GetImageMemoryRequirements;
        PFN_vkAllocateMemory AllocateMemory;
        PFN_vkFreeMemory FreeMemory;
        PFN_vkBindImageMemory BindImageMemory;
        PFN_vkGetDeviceQueue GetDeviceQueue;
        PFN_vkQueueSubmit QueueSubmit;
        PFN_vkCreateSwapchainKHR CreateSwapchainKHR;
        PFN_vkDestroySwapchainKHR DestroySwapchainKHR;
        PFN_vkGetSwapchainImagesKHR GetSwapchainImagesKHR;
        PFN_vkAcquireNextImageKHR AcquireNextImageKHR;
        PFN_vkAcquireNextImage2KHR AcquireNextImage2KHR;
        PFN_vkQueuePresentKHR QueuePresentKHR;
    } next_;
    void Release(Swapchain& swapchain);
    bool Owns(VkSwapchainKHR swapchain);
    uint32_t MemoryType(uint32_t typeBits) const;
    VkResult Submit(VkQueue queue, uint32_t waitCount, const VkSemaphore* waits, VkSemaphore signal, VkFence fence);

    VkDevice device_;
    const Instance& instance_;
    VkPhysicalDeviceMemoryProperties memory_;
    uint32_t family_;
    VkQueue acquireQueue_ = VK_NULL_HANDLE;
    std::mutex lock_;  // the swapchains, and the acquire queue's submissions
    std::unordered_map<uint64_t, std::unique_ptr<Swapchain>> swapchains_;
};

}  // namespace fsr::wsi
