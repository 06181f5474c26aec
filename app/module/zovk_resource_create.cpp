#include "app/module/zovk_resource_create.h"

#include <vector>

#include "app/zovk_processor_base.h"
#include "layer/zovk_context_manager.h"
#include "layer/zovk_records.h"
#include "settings/zovk_log.h"

namespace vulkan::zovk::app::module {

ResourceCreate::ResourceCreate(ZoVkProcessorBase* processor, VkDevice device)
    : processor_(processor), device_(device) {}

ZoVkDeviceInfo* ResourceCreate::DeviceInfo() const {
    return device_ != VK_NULL_HANDLE ? ZoVkContextManager::GetInstance()->GetDeviceInfo(GetDispatchKey(device_))
                                     : processor_->GetDeviceInfo();
}

const VkPhysicalDeviceMemoryProperties& ResourceCreate::MemoryProperties() {
    if (!memoryPropertiesCached_) {
        const ZoVkInstanceInfo* instance = processor_->GetInstanceInfo();
        if (instance != nullptr && instance->functions.vkGetPhysicalDeviceMemoryProperties != nullptr) {
            instance->functions.vkGetPhysicalDeviceMemoryProperties(DeviceInfo()->physicalDevice, &memoryProperties_);
        }
        memoryPropertiesCached_ = true;
    }
    return memoryProperties_;
}

uint32_t ResourceCreate::findMemoryType(uint32_t typeFilter, VkMemoryPropertyFlags properties) {
    const VkPhysicalDeviceMemoryProperties& memory = MemoryProperties();
    for (uint32_t i = 0; i < memory.memoryTypeCount && i < VK_MAX_MEMORY_TYPES; ++i) {
        if ((typeFilter & (1u << i)) != 0 && (memory.memoryTypes[i].propertyFlags & properties) == properties) {
            return i;
        }
    }
    ZOVK_LOGE("failed to find suitable memory type");
    // A usable-looking index: the allocation then fails or succeeds below, never here.
    return 0;
}

VkImage ResourceCreate::createImage(uint32_t width, uint32_t height, VkFormat format, VkImageTiling tiling,
                                    VkImageUsageFlags usage, VkMemoryPropertyFlags /*properties*/,
                                    VkDeviceMemory& memory) {
    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    VkImage image = VK_NULL_HANDLE;
    // An empty image is invalid usage; drivers may crash on it rather than fail.
    if (width == 0 || height == 0) {
        ZOVK_LOGE("failed to create image!");
        return VK_NULL_HANDLE;
    }

    VkImageCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO;
    info.imageType = VK_IMAGE_TYPE_2D;
    info.format = format;
    info.extent = {width, height, 1};
    info.mipLevels = 1;
    info.arrayLayers = 1;
    info.samples = VK_SAMPLE_COUNT_1_BIT;
    info.tiling = tiling;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    if (record->functions.vkCreateImage(device, &info, nullptr, &image) != VK_SUCCESS) {
        ZOVK_LOGE("failed to create image!");
        return VK_NULL_HANDLE;
    }

    VkMemoryRequirements requirements{};
    record->functions.vkGetImageMemoryRequirements(device, image, &requirements);
    // Shading-rate images are read by the GPU every frame: always device-local, whatever
    // the caller asked for.
    if (!allocateMemory(requirements, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, memory)) {
        ZOVK_LOGE("failed to allocate image memory!");
        record->functions.vkDestroyImage(device, image, nullptr);
        return VK_NULL_HANDLE;
    }
    record->functions.vkBindImageMemory(device, image, memory, 0);
    return image;
}

VkImageView ResourceCreate::createImageView(VkImage image, VkFormat format, VkImageAspectFlags aspect) {
    const ZoVkDeviceInfo* record = DeviceInfo();
    VkImageViewCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO;
    info.image = image;
    info.viewType = VK_IMAGE_VIEW_TYPE_2D;
    info.format = format;
    info.components = {VK_COMPONENT_SWIZZLE_IDENTITY, VK_COMPONENT_SWIZZLE_IDENTITY, VK_COMPONENT_SWIZZLE_IDENTITY,
                       VK_COMPONENT_SWIZZLE_IDENTITY};
    info.subresourceRange = {aspect, 0, 1, 0, 1};
    VkImageView view = VK_NULL_HANDLE;
    if (record->functions.vkCreateImageView(record->device, &info, nullptr, &view) != VK_SUCCESS) {
        ZOVK_LOGE("failed to create texture image view!");
        return VK_NULL_HANDLE;
    }
    return view;
}

VkBuffer ResourceCreate::createBuffer(VkDeviceSize size, VkBufferUsageFlags usage, VkMemoryPropertyFlags properties,
                                      VkDeviceMemory& memory) {
    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    VkBufferCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
    info.size = size;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    VkBuffer buffer = VK_NULL_HANDLE;
    // A zero size is invalid usage; refuse it as a failed create.
    if (size == 0 || record->functions.vkCreateBuffer(device, &info, nullptr, &buffer) != VK_SUCCESS) {
        ZOVK_LOGE("CreateBuffer failed");
        return VK_NULL_HANDLE;
    }

    VkMemoryRequirements requirements{};
    record->functions.vkGetBufferMemoryRequirements(device, buffer, &requirements);
    if (!allocateMemory(requirements, properties, memory)) {
        ZOVK_LOGE("failed to allocate buffer memory!");
        record->functions.vkDestroyBuffer(device, buffer, nullptr);
        return VK_NULL_HANDLE;
    }
    record->functions.vkBindBufferMemory(device, buffer, memory, 0);
    return buffer;
}

bool ResourceCreate::allocateMemory(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags properties,
                                    VkDeviceMemory& memory) {
    const ZoVkDeviceInfo* record = DeviceInfo();
    VkMemoryAllocateInfo allocate{};
    allocate.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
    allocate.allocationSize = requirements.size;
    allocate.memoryTypeIndex = findMemoryType(requirements.memoryTypeBits, properties);
    if (record->functions.vkAllocateMemory(record->device, &allocate, nullptr, &memory) != VK_SUCCESS) {
        memory = VK_NULL_HANDLE;
        return false;
    }
    return true;
}

uint32_t ResourceCreate::findGraphicQueueFamilies() {
    const ZoVkInstanceInfo* instance = processor_->GetInstanceInfo();
    if (instance == nullptr || instance->functions.vkGetPhysicalDeviceQueueFamilyProperties == nullptr) {
        return UINT32_MAX;
    }
    const auto query = instance->functions.vkGetPhysicalDeviceQueueFamilyProperties;
    const VkPhysicalDevice physicalDevice = DeviceInfo()->physicalDevice;
    uint32_t count = 0;
    query(physicalDevice, &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    query(physicalDevice, &count, families.data());
    for (uint32_t i = 0; i < count && i < families.size(); ++i) {
        if ((families[i].queueFlags & VK_QUEUE_GRAPHICS_BIT) != 0) {
            return i;
        }
    }
    return UINT32_MAX;
}

uint32_t ResourceCreate::GraphicsFamily() {
    if (!graphicsFamilyCached_) {
        graphicsFamily_ = findGraphicQueueFamilies();
        graphicsFamilyCached_ = true;
    }
    return graphicsFamily_;
}

// The helper records into a pool of its own, so that no application pool is used from a
// thread that may not own it. The application's pool is the fallback.
VkCommandPool ResourceCreate::OneShotPool() {
    if (ownPool_ == VK_NULL_HANDLE && !ownPoolTried_) {
        ownPoolTried_ = true;
        const uint32_t family = GraphicsFamily();
        if (family != UINT32_MAX) {
            const ZoVkDeviceInfo* record = DeviceInfo();
            VkCommandPoolCreateInfo info{};
            info.sType = VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO;
            info.flags = VK_COMMAND_POOL_CREATE_TRANSIENT_BIT;
            info.queueFamilyIndex = family;
            const VkResult result = record->functions.vkCreateCommandPool(record->device, &info, nullptr, &ownPool_);
            if (result != VK_SUCCESS) {
                ZOVK_LOGE("failed to create command pool, ret:%d", result);
                ownPool_ = VK_NULL_HANDLE;
            }
        }
    }
    return ownPool_ != VK_NULL_HANDLE ? ownPool_ : commandPool_;
}

VkCommandBuffer ResourceCreate::beginSingleTimeCommands() {
    ReclaimSubmissions(false);
    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    const VkCommandPool pool = OneShotPool();
    VkCommandBuffer commandBuffer = VK_NULL_HANDLE;
    // Without a pool the allocation is invalid usage: report it as a failed one.
    VkResult result = VK_ERROR_INITIALIZATION_FAILED;
    if (pool != VK_NULL_HANDLE) {
        VkCommandBufferAllocateInfo allocate{};
        allocate.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO;
        allocate.commandPool = pool;
        allocate.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
        allocate.commandBufferCount = 1;
        result = record->functions.vkAllocateCommandBuffers(device, &allocate, &commandBuffer);
    }
    if (result != VK_SUCCESS) {
        ZOVK_LOGE("failed to allocate command buffers, ret:%d", result);
        return VK_NULL_HANDLE;
    }
    // The loader did not see this allocation: without its dispatch data every layer
    // below would crash on the handle.
    if (record->setDeviceLoaderData != nullptr) {
        result = record->setDeviceLoaderData(device, commandBuffer);
        if (result != VK_SUCCESS) {
            ZOVK_LOGE("failed to allocate command buffers, ret:%d", result);
            record->functions.vkFreeCommandBuffers(device, pool, 1, &commandBuffer);
            return VK_NULL_HANDLE;
        }
    }
    recordingPool_ = pool;

    VkCommandBufferBeginInfo begin{};
    begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    record->functions.vkBeginCommandBuffer(commandBuffer, &begin);
    return commandBuffer;
}

VkQueue ResourceCreate::EndAndSubmit(VkCommandBuffer commandBuffer, VkFence fence, VkResult& result) {
    const ZoVkDeviceInfo* record = DeviceInfo();
    record->functions.vkEndCommandBuffer(commandBuffer);
    const VkQueue queue = submitQueue_ != VK_NULL_HANDLE ? submitQueue_ : GraphicsQueue();
    result = VK_ERROR_INITIALIZATION_FAILED;
    if (queue != VK_NULL_HANDLE) {
        VkSubmitInfo submit{};
        submit.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO;
        submit.commandBufferCount = 1;
        submit.pCommandBuffers = &commandBuffer;
        result = record->functions.vkQueueSubmit(queue, 1, &submit, fence);
    }
    return queue;
}

void ResourceCreate::endSingleTimeCommands(VkCommandBuffer commandBuffer) {
    if (commandBuffer == VK_NULL_HANDLE) {
        return;
    }
    const ZoVkDeviceInfo* record = DeviceInfo();
    VkResult result = VK_SUCCESS;
    const VkQueue queue = EndAndSubmit(commandBuffer, VK_NULL_HANDLE, result);
    if (queue != VK_NULL_HANDLE) {
        record->functions.vkQueueWaitIdle(queue);
    }
    // Freed even when nothing could be submitted, so the pool does not grow with every
    // upload on a device without a graphics queue.
    record->functions.vkFreeCommandBuffers(record->device, recordingPool_, 1, &commandBuffer);
}

void ResourceCreate::submitSingleTimeCommands(VkCommandBuffer commandBuffer) {
    if (commandBuffer == VK_NULL_HANDLE) {
        return;
    }
    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    VkFenceCreateInfo fenceInfo{};
    fenceInfo.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
    VkFence fence = VK_NULL_HANDLE;
    VkResult result = record->functions.vkCreateFence(device, &fenceInfo, nullptr, &fence);
    if (result == VK_SUCCESS) {
        EndAndSubmit(commandBuffer, fence, result);
    }
    if (result == VK_SUCCESS) {
        inFlight_.push_back({commandBuffer, recordingPool_, fence});
        return;
    }
    // Nothing will signal the fence: both go now.
    ZOVK_LOGE("one-shot work not submitted, ret:%d", result);
    if (fence != VK_NULL_HANDLE) {
        record->functions.vkDestroyFence(device, fence, nullptr);
    }
    record->functions.vkFreeCommandBuffers(device, recordingPool_, 1, &commandBuffer);
}

void ResourceCreate::ReclaimSubmissions(bool wait) {
    if (inFlight_.empty()) {
        return;
    }
    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    if (wait) {
        std::vector<VkFence> fences;
        for (const InFlight& f : inFlight_) fences.push_back(f.fence);
        // Bounded: a lost device must not hang its own destruction.
        constexpr uint64_t kTimeoutNs = 2'000'000'000;
        const VkResult result = record->functions.vkWaitForFences(device, static_cast<uint32_t>(fences.size()),
                                                                  fences.data(), VK_TRUE, kTimeoutNs);
        if (result != VK_SUCCESS) {
            ZOVK_LOGE("one-shot work still in flight at release, ret:%d", result);
        }
    }
    size_t kept = 0;
    for (const InFlight& f : inFlight_) {
        if (wait || record->functions.vkGetFenceStatus(device, f.fence) == VK_SUCCESS) {
            record->functions.vkDestroyFence(device, f.fence, nullptr);
            record->functions.vkFreeCommandBuffers(device, f.pool, 1, &f.commandBuffer);
        } else {
            inFlight_[kept++] = f;
        }
    }
    inFlight_.resize(kept);
}

VkQueue ResourceCreate::GraphicsQueue() {
    if (graphicsQueueCached_) {
        return graphicsQueue_;
    }
    graphicsQueueCached_ = true;
    const ZoVkDeviceInfo* record = DeviceInfo();
    const uint32_t family = GraphicsFamily();
    if (family != UINT32_MAX) {
        record->functions.vkGetDeviceQueue(record->device, family, 0, &graphicsQueue_);
    }
    // Harmless when the application fetched the same queue: the loader's data is the same.
    if (graphicsQueue_ != VK_NULL_HANDLE && record->setDeviceLoaderData != nullptr &&
        record->setDeviceLoaderData(record->device, graphicsQueue_) != VK_SUCCESS) {
        graphicsQueue_ = VK_NULL_HANDLE;
    }
    return graphicsQueue_;
}

void ResourceCreate::transitionImageLayout(VkImage image, VkFormat /*format*/, VkImageLayout oldLayout,
                                           VkImageLayout newLayout) {
    const VkCommandBuffer commandBuffer = beginSingleTimeCommands();

    VkImageMemoryBarrier barrier{};
    barrier.sType = VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER;
    barrier.oldLayout = oldLayout;
    barrier.newLayout = newLayout;
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = image;
    barrier.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};

    VkPipelineStageFlags srcStage = 0;
    VkPipelineStageFlags dstStage = 0;
    if (oldLayout == VK_IMAGE_LAYOUT_UNDEFINED && newLayout == VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL) {
        barrier.dstAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        srcStage = VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT;
        dstStage = VK_PIPELINE_STAGE_TRANSFER_BIT;
    } else if (oldLayout == VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL &&
               newLayout == VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR) {
        barrier.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        // The input-attachment read bit, not the shading-rate one: kept as the layer has
        // always recorded it.
        barrier.dstAccessMask = VK_ACCESS_INPUT_ATTACHMENT_READ_BIT;
        srcStage = VK_PIPELINE_STAGE_TRANSFER_BIT;
        dstStage = VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    } else {
        ZOVK_LOGE("failed to transition image layout!");
    }

    if (commandBuffer != VK_NULL_HANDLE) {
        DeviceInfo()->functions.vkCmdPipelineBarrier(commandBuffer, srcStage, dstStage, 0, 0, nullptr, 0, nullptr, 1,
                                                     &barrier);
    }
    endSingleTimeCommands(commandBuffer);
}

void ResourceCreate::Release() {
    ReclaimSubmissions(true);
    if (ownPool_ != VK_NULL_HANDLE) {
        const ZoVkDeviceInfo* record = DeviceInfo();
        record->functions.vkDestroyCommandPool(record->device, ownPool_, nullptr);
    }
    ownPool_ = VK_NULL_HANDLE;
    ownPoolTried_ = false;
    submitQueue_ = VK_NULL_HANDLE;
    graphicsQueue_ = VK_NULL_HANDLE;
    graphicsQueueCached_ = false;
    recordingPool_ = VK_NULL_HANDLE;
    commandPool_ = VK_NULL_HANDLE;
    memoryProperties_ = {};
    memoryPropertiesCached_ = false;
    graphicsFamily_ = UINT32_MAX;
    graphicsFamilyCached_ = false;
}

}  // namespace vulkan::zovk::app::module
