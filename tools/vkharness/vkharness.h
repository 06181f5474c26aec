#pragma once

// vkharness: the small common base of the headless Vulkan test programs (scene programs,
// shading-rate checks). It makes the objects every such program needs and stops the process
// with a clear message on the first failure, so test code stays a straight line:
//
//   vkh::setProgramName("my-test");             // prefix of every error message
//   vkh::ContextDesc desc;
//   desc.apiVersion = VK_API_VERSION_1_2;       // default 1.1
//   desc.headlessSurface = true;                // VK_KHR_surface + VK_EXT_headless_surface (+ swapchain)
//   desc.deviceExtensions = {...};              // optional extra device extensions
//   desc.deviceCreatePNext = &features2;        // optional VkDeviceCreateInfo::pNext (features chain)
//   vkh::Context ctx(desc);                     // instance, physical device, device, queue, pool
//   vkh::Context second(desc, ctx);             // another device (and surface) on ctx's instance
//   vkh::Swapchain sc = ctx.createSwapchain(1920, 1080);                          // FIFO, UNORM if offered
//   vkh::Image img = ctx.createImage(VK_FORMAT_R8G8B8A8_UNORM, {w, h}, usage);   // optimal, with a view
//   vkh::Buffer buf = ctx.createBuffer(size, usage, vkh::kHostMemory);           // host memory stays mapped
//   VkCommandBuffer cb = ctx.beginOneShot();  ...  ctx.endOneShot(cb);           // submit, wait, free
//   vkh::transition(cb, img.image, vkh::aspectOf(img.format), from, to, ...);    // one image barrier
//   std::vector<uint8_t> rgba = ctx.readImageRGBA(img.image, img.format, img.extent, layout);
//   vkh::writePng("frame.png", w, h, rgba);
//   VKH_CHECK(vkCreateSampler(ctx.device, &info, nullptr, &sampler));
//
// Shaders: in CMake, zovk_add_shaders(target foo.vert foo.frag) compiles each GLSL file at build
// time into a generated header "foo_vert.h" holding `const uint32_t foo_vert_spv[]`;
// ctx.createShader(foo_vert_spv, sizeof(foo_vert_spv)) makes the module. VARIANT v DEFINES N=3
// compiles a variant (header "foo_frag_v.h", array foo_frag_v_spv) with extra macros.
//
// The device is the first with a graphics queue (that can present, with a surface): pin the
// driver with VK_DRIVER_FILES. Objects made through a Context are destroyed with ctx.destroy(...);
// the Context destructor waits for the device and destroys the pool, device, surface and the
// instance it made (a Context on another's instance must be destroyed first). Every failing call prints "<program>: <call> failed: <VkResult name> (file:line)" and
// exits 1; a missing instance or device extension is named before that object is created (an
// instance extension that a layer offers counts: the loader refuses it unless that layer is enabled).

#include <cstdint>
#include <string>
#include <vector>

#include <vulkan/vulkan.h>

namespace vkh {

constexpr VkMemoryPropertyFlags kDeviceMemory = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
constexpr VkMemoryPropertyFlags kHostMemory =
    VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;

void setProgramName(const std::string& name);
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "<program>: message" on stderr, and the program goes on.
void warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
const char* resultName(VkResult result);
// Fails unless `result` is VK_SUCCESS (VK_SUBOPTIMAL_KHR counts as success too).
void check(VkResult result, const char* call, const char* file, int line);
#define VKH_CHECK(call) ::vkh::check((call), #call, __FILE__, __LINE__)

struct ContextDesc {
    std::string appName = "zovk-test";
    uint32_t apiVersion = VK_API_VERSION_1_1;
    bool headlessSurface = false;
    std::vector<const char*> instanceExtensions;
    std::vector<const char*> deviceExtensions;  // VK_KHR_swapchain is added with headlessSurface
    // VkDeviceCreateInfo::pNext as given (a VkPhysicalDeviceFeatures2 chain, say); enabledFeatures
    // must then stay null.
    const void* deviceCreatePNext = nullptr;
    const VkPhysicalDeviceFeatures* enabledFeatures = nullptr;
};

struct Buffer {
    VkBuffer buffer = VK_NULL_HANDLE;
    VkDeviceMemory memory = VK_NULL_HANDLE;
    VkDeviceSize size = 0;
    void* mapped = nullptr;  // set for host-visible memory
};

struct Image {
    VkImage image = VK_NULL_HANDLE;
    VkDeviceMemory memory = VK_NULL_HANDLE;
    VkImageView view = VK_NULL_HANDLE;  // whole image, aspect from the format
    VkFormat format = VK_FORMAT_UNDEFINED;
    VkExtent2D extent = {0, 0};
};

struct Swapchain {
    VkSwapchainKHR swapchain = VK_NULL_HANDLE;
    VkFormat format = VK_FORMAT_UNDEFINED;
    VkExtent2D extent = {0, 0};
    std::vector<VkImage> images;
    std::vector<VkImageView> views;
};

// Colour, depth or depth|stencil, as a view or barrier of the whole format needs.
VkImageAspectFlags aspectOf(VkFormat format);

// Records a whole-image layout transition (all levels and layers).
void transition(VkCommandBuffer cmd, VkImage image, VkImageAspectFlags aspect, VkImageLayout from,
                VkImageLayout to, VkPipelineStageFlags srcStage, VkAccessFlags srcAccess,
                VkPipelineStageFlags dstStage, VkAccessFlags dstAccess);

// Writes tightly packed RGBA8 rows as a PNG; fails the program on any error.
void writePng(const std::string& path, uint32_t width, uint32_t height, const std::vector<uint8_t>& rgba);

class Context {
public:
    explicit Context(const ContextDesc& desc);
    // Another device of the same physical device on `shared`'s instance (desc's instance
    // extensions must be among those `shared` was made with).
    Context(const ContextDesc& desc, const Context& shared);
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    VkInstance instance = VK_NULL_HANDLE;
    VkPhysicalDevice physicalDevice = VK_NULL_HANDLE;
    VkPhysicalDeviceProperties properties = {};
    VkPhysicalDeviceMemoryProperties memoryProperties = {};
    VkDevice device = VK_NULL_HANDLE;
    uint32_t queueFamily = 0;  // graphics (and present, with a surface)
    VkQueue queue = VK_NULL_HANDLE;
    VkCommandPool commandPool = VK_NULL_HANDLE;  // resettable buffers, for one-shot work
    VkSurfaceKHR surface = VK_NULL_HANDLE;       // set with headlessSurface

    bool supportsOptimal(VkFormat format, VkFormatFeatureFlags features) const;
    uint32_t memoryType(uint32_t typeBits, VkMemoryPropertyFlags flags) const;
    // Memory of the first type that fits `requirements` and has `flags`.
    VkDeviceMemory allocate(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags flags) const;

    Buffer createBuffer(VkDeviceSize size, VkBufferUsageFlags usage, VkMemoryPropertyFlags flags);
    // A host-visible buffer holding a copy of `data`.
    Buffer createBufferWithData(const void* data, VkDeviceSize size, VkBufferUsageFlags usage);
    Image createImage(VkFormat format, VkExtent2D extent, VkImageUsageFlags usage);
    VkShaderModule createShader(const uint32_t* code, size_t bytes);
    Swapchain createSwapchain(uint32_t width, uint32_t height,
                              VkImageUsageFlags usage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT |
                                                        VK_IMAGE_USAGE_TRANSFER_SRC_BIT);

    void destroy(Buffer& buffer);
    void destroy(Image& image);
    void destroy(Swapchain& swapchain);

    VkCommandBuffer beginOneShot();
    void endOneShot(VkCommandBuffer cmd);  // submits, waits for the queue, frees

    // Copies an image in `layout` (left in that layout afterwards) into RGBA8 rows. Takes
    // R8G8B8A8 and B8G8R8A8, UNORM or SRGB (bytes as stored, no conversion).
    std::vector<uint8_t> readImageRGBA(VkImage image, VkFormat format, VkExtent2D extent, VkImageLayout layout);

private:
    void createDevice(const ContextDesc& desc);
    bool ownsInstance_ = true;
};

}  // namespace vkh
