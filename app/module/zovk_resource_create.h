#pragma once

#include <cstdint>
#include <vector>

#include <vulkan/vulkan_core.h>

namespace vulkan::zovk {
struct ZoVkDeviceInfo;
}

namespace vulkan::zovk::app {
class ZoVkProcessorBase;
}

namespace vulkan::zovk::app::module {

// Makes the layer's own objects inside the application's device: images and buffers with
// bound memory, views, and one-shot command buffers for uploads and layout transitions.
// Every call goes straight to the next layer through the processor's records, so the
// layer's own work never passes through its modules.
//
// Images, views, buffers and memory are handed to the caller, who destroys them; a create
// whose memory cannot be had destroys what it made and fails. The helper owns only its
// transient command pool, which Release() destroys: call it before the device goes.
// One-shot operations go to the submit queue when one is set (a queue the application holds
// at that moment), otherwise to the first graphics queue. endSingleTimeCommands waits for
// that queue to go idle; submitSingleTimeCommands does not wait, and its command buffers
// are freed once their fences have signalled.
class ResourceCreate {
public:
    // Works on `device`, or on the processor's device record when it is null.
    explicit ResourceCreate(ZoVkProcessorBase* processor, VkDevice device = VK_NULL_HANDLE);
    // Calls nothing: the device may already be gone. Release() is the teardown.
    ~ResourceCreate() = default;
    ResourceCreate(const ResourceCreate&) = delete;
    ResourceCreate& operator=(const ResourceCreate&) = delete;

    VkImage createImage(uint32_t width, uint32_t height, VkFormat format, VkImageTiling tiling,
                        VkImageUsageFlags usage, VkMemoryPropertyFlags properties, VkDeviceMemory& memory);
    VkImageView createImageView(VkImage image, VkFormat format, VkImageAspectFlags aspect);
    VkBuffer createBuffer(VkDeviceSize size, VkBufferUsageFlags usage, VkMemoryPropertyFlags properties,
                          VkDeviceMemory& memory);
    // Lowest allowed type that has all of `properties`; 0 (logged) when none has.
    uint32_t findMemoryType(uint32_t typeFilter, VkMemoryPropertyFlags properties);
    void transitionImageLayout(VkImage image, VkFormat format, VkImageLayout oldLayout, VkImageLayout newLayout);
    // Null when no command buffer could be had; endSingleTimeCommands accepts that.
    VkCommandBuffer beginSingleTimeCommands();
    void endSingleTimeCommands(VkCommandBuffer commandBuffer);
    // Ends and submits with a fence, without waiting: for work recorded on the application's
    // render thread. Ordering with the application's later work on the same queue comes from
    // the barriers recorded in it.
    void submitSingleTimeCommands(VkCommandBuffer commandBuffer);
    // First family with graphics queues, UINT32_MAX when none.
    uint32_t findGraphicQueueFamilies();

    // The application's most recently created pool: used for one-shot work only when the
    // helper's own pool cannot be made.
    void SetCommandPool(VkCommandPool pool) { commandPool_ = pool; }
    // Where one-shot work is submitted until it is set back to null. It must be of the
    // first graphics family, which the helper's pool is made for.
    void SetSubmitQueue(VkQueue queue) { submitQueue_ = queue; }
    // The first graphics family's first queue, null when there is none.
    VkQueue GraphicsQueue();
    // Waits for the submissions still in flight, destroys the helper's own pool and forgets
    // everything tied to the device. For the device's pre-destroy path, before the next
    // layer destroys the device.
    void Release();

protected:
    ZoVkDeviceInfo* DeviceInfo() const;

private:
    // Allocates memory of the first type that allows the requirements and has `properties`.
    bool allocateMemory(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags properties,
                        VkDeviceMemory& memory);

    const VkPhysicalDeviceMemoryProperties& MemoryProperties();
    // Ends `commandBuffer` and submits it with `fence` to the submit queue, else the first
    // graphics queue; that queue (null when there is none) and the submission's result.
    VkQueue EndAndSubmit(VkCommandBuffer commandBuffer, VkFence fence, VkResult& result);
    // Frees the command buffers and fences of finished submissions; with `wait`, of all of them.
    void ReclaimSubmissions(bool wait);
    // findGraphicQueueFamilies, asked once per device: every one-shot submission needs it.
    uint32_t GraphicsFamily();
    VkCommandPool OneShotPool();

    ZoVkProcessorBase* processor_;
    VkDevice device_;
    VkCommandPool commandPool_ = VK_NULL_HANDLE;
    VkQueue submitQueue_ = VK_NULL_HANDLE;
    VkQueue graphicsQueue_ = VK_NULL_HANDLE;
    bool graphicsQueueCached_ = false;
    VkPhysicalDeviceMemoryProperties memoryProperties_{};
    bool memoryPropertiesCached_ = false;
    uint32_t graphicsFamily_ = UINT32_MAX;
    bool graphicsFamilyCached_ = false;
    VkCommandPool ownPool_ = VK_NULL_HANDLE;
    bool ownPoolTried_ = false;
    // The pool the command buffer being recorded came from, to free it there.
    VkCommandPool recordingPool_ = VK_NULL_HANDLE;
    struct InFlight {
        VkCommandBuffer commandBuffer;
        VkCommandPool pool;
        VkFence fence;
    };
    std::vector<InFlight> inFlight_;
};

}  // namespace vulkan::zovk::app::module
