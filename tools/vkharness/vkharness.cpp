#include "vkharness.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <png.h>

namespace vkh {

namespace {

std::string gProgramName = "vkharness";

bool hasExtension(const std::vector<VkExtensionProperties>& available, const char* name) {
    for (const VkExtensionProperties& e : available) {
        if (std::strcmp(e.extensionName, name) == 0) return true;
    }
    return false;
}

void addUnique(std::vector<const char*>& names, const char* name) {
    for (const char* n : names) {
        if (std::strcmp(n, name) == 0) return;
    }
    names.push_back(name);
}

}  // namespace

void setProgramName(const std::string& name) { gProgramName = name; }

namespace {

void report(const char* format, va_list args) {
    std::fprintf(stderr, "%s: ", gProgramName.c_str());
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
}

}  // namespace

void fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    report(format, args);
    va_end(args);
    std::exit(1);
}

void warn(const char* format, ...) {
    va_list args;
    va_start(args, format);
    report(format, args);
    va_end(args);
}

const char* resultName(VkResult result) {
    switch (result) {
#define VKH_RESULT(r) \
    case r:           \
        return #r;
        VKH_RESULT(VK_SUCCESS)
        VKH_RESULT(VK_NOT_READY)
        VKH_RESULT(VK_TIMEOUT)
        VKH_RESULT(VK_EVENT_SET)
        VKH_RESULT(VK_EVENT_RESET)
        VKH_RESULT(VK_INCOMPLETE)
        VKH_RESULT(VK_ERROR_OUT_OF_HOST_MEMORY)
        VKH_RESULT(VK_ERROR_OUT_OF_DEVICE_MEMORY)
        VKH_RESULT(VK_ERROR_INITIALIZATION_FAILED)
        VKH_RESULT(VK_ERROR_DEVICE_LOST)
        VKH_RESULT(VK_ERROR_MEMORY_MAP_FAILED)
        VKH_RESULT(VK_ERROR_LAYER_NOT_PRESENT)
        VKH_RESULT(VK_ERROR_EXTENSION_NOT_PRESENT)
        VKH_RESULT(VK_ERROR_FEATURE_NOT_PRESENT)
        VKH_RESULT(VK_ERROR_INCOMPATIBLE_DRIVER)
        VKH_RESULT(VK_ERROR_TOO_MANY_OBJECTS)
        VKH_RESULT(VK_ERROR_FORMAT_NOT_SUPPORTED)
        VKH_RESULT(VK_ERROR_FRAGMENTED_POOL)
        VKH_RESULT(VK_ERROR_UNKNOWN)
        VKH_RESULT(VK_ERROR_OUT_OF_POOL_MEMORY)
        VKH_RESULT(VK_ERROR_INVALID_EXTERNAL_HANDLE)
        VKH_RESULT(VK_ERROR_FRAGMENTATION)
        VKH_RESULT(VK_ERROR_SURFACE_LOST_KHR)
        VKH_RESULT(VK_ERROR_NATIVE_WINDOW_IN_USE_KHR)
        VKH_RESULT(VK_SUBOPTIMAL_KHR)
        VKH_RESULT(VK_ERROR_OUT_OF_DATE_KHR)
        VKH_RESULT(VK_ERROR_VALIDATION_FAILED_EXT)
#undef VKH_RESULT
    default:
        return "VkResult(unnamed)";
    }
}

void check(VkResult result, const char* call, const char* file, int line) {
    if (result == VK_SUCCESS || result == VK_SUBOPTIMAL_KHR) return;
    const char* base = std::strrchr(file, '/');
    fail("%s failed: %s (%d) (%s:%d)", call, resultName(result), static_cast<int>(result), base ? base + 1 : file,
         line);
}

VkImageAspectFlags aspectOf(VkFormat format) {
    switch (format) {
    case VK_FORMAT_D16_UNORM:
    case VK_FORMAT_X8_D24_UNORM_PACK32:
    case VK_FORMAT_D32_SFLOAT:
        return VK_IMAGE_ASPECT_DEPTH_BIT;
    case VK_FORMAT_S8_UINT:
        return VK_IMAGE_ASPECT_STENCIL_BIT;
    case VK_FORMAT_D16_UNORM_S8_UINT:
    case VK_FORMAT_D24_UNORM_S8_UINT:
    case VK_FORMAT_D32_SFLOAT_S8_UINT:
        return VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT;
    default:
        return VK_IMAGE_ASPECT_COLOR_BIT;
    }
}

void transition(VkCommandBuffer cmd, VkImage image, VkImageAspectFlags aspect, VkImageLayout from, VkImageLayout to,
                VkPipelineStageFlags srcStage, VkAccessFlags srcAccess, VkPipelineStageFlags dstStage,
                VkAccessFlags dstAccess) {
    VkImageMemoryBarrier barrier = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER};
    barrier.srcAccessMask = srcAccess;
    barrier.dstAccessMask = dstAccess;
    barrier.oldLayout = from;
    barrier.newLayout = to;
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = image;
    barrier.subresourceRange = {aspect, 0, VK_REMAINING_MIP_LEVELS, 0, VK_REMAINING_ARRAY_LAYERS};
    vkCmdPipelineBarrier(cmd, srcStage, dstStage, 0, 0, nullptr, 0, nullptr, 1, &barrier);
}

void writePng(const std::string& path, uint32_t width, uint32_t height, const std::vector<uint8_t>& rgba) {
    if (rgba.size() != size_t(width) * height * 4) fail("writePng: %zu bytes for a %ux%u image", rgba.size(), width, height);
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) fail("cannot open %s for writing: %s", path.c_str(), std::strerror(errno));
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) fail("libpng could not start writing %s", path.c_str());
    if (setjmp(png_jmpbuf(png))) fail("libpng failed while writing %s", path.c_str());
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    // Frames are large and written once: speed matters more than size.
    png_set_compression_level(png, 1);
    png_write_info(png, info);
    for (uint32_t y = 0; y < height; ++y) {
        png_write_row(png, const_cast<png_bytep>(rgba.data() + size_t(y) * width * 4));
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(file) != 0) fail("cannot write %s: %s", path.c_str(), std::strerror(errno));
}

Context::Context(const ContextDesc& desc) {
    std::vector<const char*> instanceExtensions = desc.instanceExtensions;
    if (desc.headlessSurface) {
        addUnique(instanceExtensions, VK_KHR_SURFACE_EXTENSION_NAME);
        addUnique(instanceExtensions, VK_EXT_HEADLESS_SURFACE_EXTENSION_NAME);
    }
    uint32_t count = 0;
    VKH_CHECK(vkEnumerateInstanceExtensionProperties(nullptr, &count, nullptr));
    std::vector<VkExtensionProperties> available(count);
    VKH_CHECK(vkEnumerateInstanceExtensionProperties(nullptr, &count, available.data()));
    // Layers enabled from the environment offer their own (the emulation layer's headless surface
    // where the driver has none); the loader refuses the instance if none of them is enabled.
    VKH_CHECK(vkEnumerateInstanceLayerProperties(&count, nullptr));
    std::vector<VkLayerProperties> layers(count);
    VKH_CHECK(vkEnumerateInstanceLayerProperties(&count, layers.data()));
    for (const VkLayerProperties& layer : layers) {
        uint32_t n = 0;
        if (vkEnumerateInstanceExtensionProperties(layer.layerName, &n, nullptr) != VK_SUCCESS) continue;
        available.resize(available.size() + n);
        vkEnumerateInstanceExtensionProperties(layer.layerName, &n, available.data() + available.size() - n);
    }
    for (const char* name : instanceExtensions) {
        if (!hasExtension(available, name)) fail("instance extension %s is not available", name);
    }

    VkApplicationInfo app = {VK_STRUCTURE_TYPE_APPLICATION_INFO};
    app.pApplicationName = desc.appName.c_str();
    app.applicationVersion = 1;
    app.pEngineName = "vkharness";
    app.apiVersion = desc.apiVersion;
    VkInstanceCreateInfo instanceInfo = {VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO};
    instanceInfo.pApplicationInfo = &app;
    instanceInfo.enabledExtensionCount = uint32_t(instanceExtensions.size());
    instanceInfo.ppEnabledExtensionNames = instanceExtensions.data();
    VKH_CHECK(vkCreateInstance(&instanceInfo, nullptr, &instance));
    createDevice(desc);
}

Context::Context(const ContextDesc& desc, const Context& shared) : instance(shared.instance), ownsInstance_(false) {
    createDevice(desc);
}

void Context::createDevice(const ContextDesc& desc) {
    if (desc.headlessSurface) {
        auto createHeadless = reinterpret_cast<PFN_vkCreateHeadlessSurfaceEXT>(
            vkGetInstanceProcAddr(instance, "vkCreateHeadlessSurfaceEXT"));
        if (!createHeadless) fail("vkCreateHeadlessSurfaceEXT is not available");
        VkHeadlessSurfaceCreateInfoEXT surfaceInfo = {VK_STRUCTURE_TYPE_HEADLESS_SURFACE_CREATE_INFO_EXT};
        VKH_CHECK(createHeadless(instance, &surfaceInfo, nullptr, &surface));
    }

    // The first device with a graphics queue (that can present, with a surface) wins; tests pin
    // the driver with VK_DRIVER_FILES, so there is normally one.
    uint32_t count = 0;
    VKH_CHECK(vkEnumeratePhysicalDevices(instance, &count, nullptr));
    std::vector<VkPhysicalDevice> devices(count);
    VKH_CHECK(vkEnumeratePhysicalDevices(instance, &count, devices.data()));
    for (VkPhysicalDevice candidate : devices) {
        uint32_t familyCount = 0;
        vkGetPhysicalDeviceQueueFamilyProperties(candidate, &familyCount, nullptr);
        std::vector<VkQueueFamilyProperties> families(familyCount);
        vkGetPhysicalDeviceQueueFamilyProperties(candidate, &familyCount, families.data());
        for (uint32_t i = 0; i < familyCount && !physicalDevice; ++i) {
            if (!(families[i].queueFlags & VK_QUEUE_GRAPHICS_BIT)) continue;
            if (surface) {
                VkBool32 present = VK_FALSE;
                VKH_CHECK(vkGetPhysicalDeviceSurfaceSupportKHR(candidate, i, surface, &present));
                if (!present) continue;
            }
            physicalDevice = candidate;
            queueFamily = i;
        }
        if (physicalDevice) break;
    }
    if (!physicalDevice) fail("no Vulkan device with a graphics queue%s", surface ? " that can present" : "");
    vkGetPhysicalDeviceProperties(physicalDevice, &properties);
    vkGetPhysicalDeviceMemoryProperties(physicalDevice, &memoryProperties);

    std::vector<const char*> deviceExtensions = desc.deviceExtensions;
    if (desc.headlessSurface) addUnique(deviceExtensions, VK_KHR_SWAPCHAIN_EXTENSION_NAME);
    VKH_CHECK(vkEnumerateDeviceExtensionProperties(physicalDevice, nullptr, &count, nullptr));
    std::vector<VkExtensionProperties> available(count);
    VKH_CHECK(vkEnumerateDeviceExtensionProperties(physicalDevice, nullptr, &count, available.data()));
    for (const char* name : deviceExtensions) {
        if (!hasExtension(available, name)) fail("device extension %s is not available on %s", name, properties.deviceName);
    }

    const float priority = 1.0f;
    VkDeviceQueueCreateInfo queueInfo = {VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO};
    queueInfo.queueFamilyIndex = queueFamily;
    queueInfo.queueCount = 1;
    queueInfo.pQueuePriorities = &priority;
    VkDeviceCreateInfo deviceInfo = {VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO};
    deviceInfo.pNext = desc.deviceCreatePNext;
    deviceInfo.queueCreateInfoCount = 1;
    deviceInfo.pQueueCreateInfos = &queueInfo;
    deviceInfo.enabledExtensionCount = uint32_t(deviceExtensions.size());
    deviceInfo.ppEnabledExtensionNames = deviceExtensions.data();
    deviceInfo.pEnabledFeatures = desc.enabledFeatures;
    VKH_CHECK(vkCreateDevice(physicalDevice, &deviceInfo, nullptr, &device));
    vkGetDeviceQueue(device, queueFamily, 0, &queue);

    VkCommandPoolCreateInfo poolInfo = {VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
    poolInfo.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    poolInfo.queueFamilyIndex = queueFamily;
    VKH_CHECK(vkCreateCommandPool(device, &poolInfo, nullptr, &commandPool));
}

Context::~Context() {
    if (device) {
        vkDeviceWaitIdle(device);
        vkDestroyCommandPool(device, commandPool, nullptr);
        vkDestroyDevice(device, nullptr);
    }
    if (surface) vkDestroySurfaceKHR(instance, surface, nullptr);
    if (instance && ownsInstance_) vkDestroyInstance(instance, nullptr);
}

bool Context::supportsOptimal(VkFormat format, VkFormatFeatureFlags features) const {
    VkFormatProperties props = {};
    vkGetPhysicalDeviceFormatProperties(physicalDevice, format, &props);
    return (props.optimalTilingFeatures & features) == features;
}

uint32_t Context::memoryType(uint32_t typeBits, VkMemoryPropertyFlags flags) const {
    for (uint32_t i = 0; i < memoryProperties.memoryTypeCount; ++i) {
        if ((typeBits & (1u << i)) && (memoryProperties.memoryTypes[i].propertyFlags & flags) == flags) return i;
    }
    fail("no memory type among 0x%x with properties 0x%x", typeBits, flags);
}

VkDeviceMemory Context::allocate(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags flags) const {
    VkMemoryAllocateInfo alloc = {VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO};
    alloc.allocationSize = requirements.size;
    alloc.memoryTypeIndex = memoryType(requirements.memoryTypeBits, flags);
    VkDeviceMemory memory = VK_NULL_HANDLE;
    VKH_CHECK(vkAllocateMemory(device, &alloc, nullptr, &memory));
    return memory;
}

Buffer Context::createBuffer(VkDeviceSize size, VkBufferUsageFlags usage, VkMemoryPropertyFlags flags) {
    Buffer b;
    b.size = size;
    VkBufferCreateInfo info = {VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO};
    info.size = size;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    VKH_CHECK(vkCreateBuffer(device, &info, nullptr, &b.buffer));
    VkMemoryRequirements req;
    vkGetBufferMemoryRequirements(device, b.buffer, &req);
    b.memory = allocate(req, flags);
    VKH_CHECK(vkBindBufferMemory(device, b.buffer, b.memory, 0));
    if (flags & VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT) VKH_CHECK(vkMapMemory(device, b.memory, 0, VK_WHOLE_SIZE, 0, &b.mapped));
    return b;
}

Buffer Context::createBufferWithData(const void* data, VkDeviceSize size, VkBufferUsageFlags usage) {
    Buffer b = createBuffer(size, usage, kHostMemory);
    std::memcpy(b.mapped, data, size_t(size));
    return b;
}

Image Context::createImage(VkFormat format, VkExtent2D extent, VkImageUsageFlags usage) {
    Image img;
    img.format = format;
    img.extent = extent;
    VkImageCreateInfo info = {VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO};
    info.imageType = VK_IMAGE_TYPE_2D;
    info.format = format;
    info.extent = {extent.width, extent.height, 1};
    info.mipLevels = 1;
    info.arrayLayers = 1;
    info.samples = VK_SAMPLE_COUNT_1_BIT;
    info.tiling = VK_IMAGE_TILING_OPTIMAL;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    VKH_CHECK(vkCreateImage(device, &info, nullptr, &img.image));
    VkMemoryRequirements req;
    vkGetImageMemoryRequirements(device, img.image, &req);
    img.memory = allocate(req, kDeviceMemory);
    VKH_CHECK(vkBindImageMemory(device, img.image, img.memory, 0));
    VkImageViewCreateInfo viewInfo = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
    viewInfo.image = img.image;
    viewInfo.viewType = VK_IMAGE_VIEW_TYPE_2D;
    viewInfo.format = format;
    viewInfo.subresourceRange = {aspectOf(format), 0, 1, 0, 1};
    VKH_CHECK(vkCreateImageView(device, &viewInfo, nullptr, &img.view));
    return img;
}

VkShaderModule Context::createShader(const uint32_t* code, size_t bytes) {
    VkShaderModuleCreateInfo info = {VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO};
    info.codeSize = bytes;
    info.pCode = code;
    VkShaderModule module = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateShaderModule(device, &info, nullptr, &module));
    return module;
}

Swapchain Context::createSwapchain(uint32_t width, uint32_t height, VkImageUsageFlags usage) {
    if (!surface) fail("createSwapchain needs a Context made with headlessSurface");
    VkSurfaceCapabilitiesKHR caps;
    VKH_CHECK(vkGetPhysicalDeviceSurfaceCapabilitiesKHR(physicalDevice, surface, &caps));
    if ((caps.supportedUsageFlags & usage) != usage) {
        fail("the surface supports image usage 0x%x, not 0x%x", caps.supportedUsageFlags, usage);
    }
    if (width < caps.minImageExtent.width || height < caps.minImageExtent.height ||
        width > caps.maxImageExtent.width || height > caps.maxImageExtent.height) {
        fail("a %ux%u swapchain is outside the surface's extent range", width, height);
    }
    uint32_t count = 0;
    VKH_CHECK(vkGetPhysicalDeviceSurfaceFormatsKHR(physicalDevice, surface, &count, nullptr));
    std::vector<VkSurfaceFormatKHR> formats(count);
    VKH_CHECK(vkGetPhysicalDeviceSurfaceFormatsKHR(physicalDevice, surface, &count, formats.data()));
    if (formats.empty()) fail("the surface offers no formats");
    // An UNORM format keeps the read-back bytes equal to what the shaders wrote.
    VkSurfaceFormatKHR chosen = formats[0];
    for (const VkSurfaceFormatKHR& f : formats) {
        if (f.format == VK_FORMAT_B8G8R8A8_UNORM || f.format == VK_FORMAT_R8G8B8A8_UNORM) {
            chosen = f;
            break;
        }
    }

    Swapchain sc;
    sc.format = chosen.format;
    sc.extent = {width, height};
    VkSwapchainCreateInfoKHR info = {VK_STRUCTURE_TYPE_SWAPCHAIN_CREATE_INFO_KHR};
    info.surface = surface;
    info.minImageCount = caps.minImageCount < 2 ? 2 : caps.minImageCount;
    if (caps.maxImageCount && info.minImageCount > caps.maxImageCount) info.minImageCount = caps.maxImageCount;
    info.imageFormat = chosen.format;
    info.imageColorSpace = chosen.colorSpace;
    info.imageExtent = sc.extent;
    info.imageArrayLayers = 1;
    info.imageUsage = usage;
    info.imageSharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.preTransform = (caps.supportedTransforms & VK_SURFACE_TRANSFORM_IDENTITY_BIT_KHR)
                            ? VK_SURFACE_TRANSFORM_IDENTITY_BIT_KHR
                            : caps.currentTransform;
    info.compositeAlpha = VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR;
    if (!(caps.supportedCompositeAlpha & info.compositeAlpha)) {
        info.compositeAlpha = VkCompositeAlphaFlagBitsKHR(caps.supportedCompositeAlpha & -caps.supportedCompositeAlpha);
    }
    info.presentMode = VK_PRESENT_MODE_FIFO_KHR;  // the one mode every surface has
    info.clipped = VK_TRUE;
    VKH_CHECK(vkCreateSwapchainKHR(device, &info, nullptr, &sc.swapchain));

    VKH_CHECK(vkGetSwapchainImagesKHR(device, sc.swapchain, &count, nullptr));
    sc.images.resize(count);
    VKH_CHECK(vkGetSwapchainImagesKHR(device, sc.swapchain, &count, sc.images.data()));
    for (VkImage image : sc.images) {
        VkImageViewCreateInfo viewInfo = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
        viewInfo.image = image;
        viewInfo.viewType = VK_IMAGE_VIEW_TYPE_2D;
        viewInfo.format = sc.format;
        viewInfo.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
        VkImageView view = VK_NULL_HANDLE;
        VKH_CHECK(vkCreateImageView(device, &viewInfo, nullptr, &view));
        sc.views.push_back(view);
    }
    return sc;
}

void Context::destroy(Buffer& b) {
    if (b.mapped) vkUnmapMemory(device, b.memory);
    vkDestroyBuffer(device, b.buffer, nullptr);
    vkFreeMemory(device, b.memory, nullptr);
    b = Buffer();
}

void Context::destroy(Image& img) {
    vkDestroyImageView(device, img.view, nullptr);
    vkDestroyImage(device, img.image, nullptr);
    vkFreeMemory(device, img.memory, nullptr);
    img = Image();
}

void Context::destroy(Swapchain& sc) {
    for (VkImageView view : sc.views) vkDestroyImageView(device, view, nullptr);
    vkDestroySwapchainKHR(device, sc.swapchain, nullptr);
    sc = Swapchain();
}

VkCommandBuffer Context::beginOneShot() {
    VkCommandBufferAllocateInfo alloc = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    alloc.commandPool = commandPool;
    alloc.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    alloc.commandBufferCount = 1;
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    VKH_CHECK(vkAllocateCommandBuffers(device, &alloc, &cmd));
    VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    VKH_CHECK(vkBeginCommandBuffer(cmd, &begin));
    return cmd;
}

void Context::endOneShot(VkCommandBuffer cmd) {
    VKH_CHECK(vkEndCommandBuffer(cmd));
    VkSubmitInfo submit = {VK_STRUCTURE_TYPE_SUBMIT_INFO};
    submit.commandBufferCount = 1;
    submit.pCommandBuffers = &cmd;
    VKH_CHECK(vkQueueSubmit(queue, 1, &submit, VK_NULL_HANDLE));
    VKH_CHECK(vkQueueWaitIdle(queue));
    vkFreeCommandBuffers(device, commandPool, 1, &cmd);
}

std::vector<uint8_t> Context::readImageRGBA(VkImage image, VkFormat format, VkExtent2D extent, VkImageLayout layout) {
    bool swapRB = false;
    switch (format) {
    case VK_FORMAT_R8G8B8A8_UNORM:
    case VK_FORMAT_R8G8B8A8_SRGB:
        break;
    case VK_FORMAT_B8G8R8A8_UNORM:
    case VK_FORMAT_B8G8R8A8_SRGB:
        swapRB = true;
        break;
    default:
        fail("readImageRGBA: format %d is not an 8-bit RGBA or BGRA format", int(format));
    }
    if (layout == VK_IMAGE_LAYOUT_UNDEFINED) fail("readImageRGBA: an image in the undefined layout has no content");

    const VkDeviceSize size = VkDeviceSize(extent.width) * extent.height * 4;
    Buffer staging = createBuffer(size, VK_BUFFER_USAGE_TRANSFER_DST_BIT, kHostMemory);
    VkCommandBuffer cmd = beginOneShot();
    transition(cmd, image, VK_IMAGE_ASPECT_COLOR_BIT, layout, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL,
               VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, VK_ACCESS_MEMORY_WRITE_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT,
               VK_ACCESS_TRANSFER_READ_BIT);
    VkBufferImageCopy region = {};
    region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    region.imageExtent = {extent.width, extent.height, 1};
    vkCmdCopyImageToBuffer(cmd, image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, staging.buffer, 1, &region);
    transition(cmd, image, VK_IMAGE_ASPECT_COLOR_BIT, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, layout,
               VK_PIPELINE_STAGE_TRANSFER_BIT, 0, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, 0);
    VkBufferMemoryBarrier toHost = {VK_STRUCTURE_TYPE_BUFFER_MEMORY_BARRIER};
    toHost.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
    toHost.dstAccessMask = VK_ACCESS_HOST_READ_BIT;
    toHost.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    toHost.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    toHost.buffer = staging.buffer;
    toHost.size = VK_WHOLE_SIZE;
    vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_HOST_BIT, 0, 0, nullptr, 1, &toHost, 0,
                         nullptr);
    endOneShot(cmd);

    std::vector<uint8_t> rgba(static_cast<size_t>(size));
    std::memcpy(rgba.data(), staging.mapped, rgba.size());
    destroy(staging);
    if (swapRB) {
        for (size_t i = 0; i < rgba.size(); i += 4) std::swap(rgba[i], rgba[i + 2]);
    }
    return rgba;
}

}  // namespace vkh
