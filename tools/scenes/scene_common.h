#pragma once

// What the scene programs share: option parsing, meshes, render pass and pipeline builders,
// sampler descriptor sets and the present loop. Each scene program records the frame structure
// of one application; this file knows nothing of either.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vkharness.h"

namespace scene {

// ---- options

struct CommonOptions {
    uint32_t frames = 60;
    uint32_t width = 1920;
    uint32_t height = 1080;
    std::string png;       // empty: no image written
    uint32_t shaderLoops = 1;  // up to 1: the plain pass shaders, as without the option
    std::string gpuTime;   // empty: no GPU times written
};

// The lines of the usage text for the options below.
extern const char kCommonUsage[];

// Parses "--frames N", "--width N", "--height N", "--png FILE", "--shader-loops N" and
// "--gpu-time FILE" at argv[i] (advancing i past the value) and returns true; false when argv[i]
// is not one of them.
bool parseCommonOption(int argc, char** argv, int& i, CommonOptions& options);

// Walks the command line: the common options into `common`, the scene's own through `own`
// (given the option, it returns whether it took it, advancing i past a value), "--help" prints
// `usage` and exits, anything else fails with it.
void parseOptions(int argc, char** argv, const char* usage, CommonOptions& common,
                  const std::function<bool(const std::string& option, int& i)>& own);
// The value after argv[i] (advancing i), or a usage failure naming the option.
const char* optionValue(int argc, char** argv, int& i);
uint32_t parseNumber(const char* text, const char* option, uint32_t min, uint32_t max);
// "a,b,c": exactly `count` numbers.
std::vector<uint32_t> parseNumberList(const char* text, const char* option, size_t count);

// ---- meshes

struct Vertex {
    float x, y, z;     // mesh space xy in [-1, 1], z depth
    float r, g, b, a;  // colour
};

struct Mesh {
    std::vector<Vertex> vertices;
    std::vector<uint32_t> indices;
};

// A cols x rows grid of quads over [-1, 1]^2, colours sweeping across it, depth from
// depthLeft to depthRight.
Mesh makeGrid(uint32_t cols, uint32_t rows, float depthLeft, float depthRight);
Mesh makeQuad(float depth, float r, float g, float b);
// A spiral of small triangles: 3 indices per triangle, at least `indexCount` indices.
Mesh makeRing(uint32_t indexCount, float depth);

struct MeshRange {
    uint32_t firstIndex = 0;
    uint32_t indexCount = 0;
    int32_t vertexOffset = 0;
};

// All meshes of a scene in one vertex and one index buffer.
class MeshBuffers {
public:
    MeshRange add(const Mesh& mesh);
    void upload(vkh::Context& ctx);
    void bind(VkCommandBuffer cmd) const;
    void destroy(vkh::Context& ctx);

private:
    Mesh all_;
    vkh::Buffer vertices_;
    vkh::Buffer indices_;
};

struct DrawConstants {
    float transform[4] = {0, 0, 1, 1};  // offset xy, scale zw
    float tint[4] = {1, 1, 1, 0};       // rgb, a: fragment mode
    float step[4] = {0, 0, 0, 0};       // instance step xy, depth step z
};
constexpr VkShaderStageFlags kDrawConstantStages = VK_SHADER_STAGE_VERTEX_BIT | VK_SHADER_STAGE_FRAGMENT_BIT;

// ---- render passes and pipelines

struct AttachmentSpec {
    VkFormat format;
    VkAttachmentLoadOp load;
    VkImageLayout initialLayout;
    VkImageLayout finalLayout;
};

// One subpass; the last attachment is the depth attachment when it has a depth format, all
// others are colour attachments in order. Created with vkCreateRenderPass (version 1), with
// external dependencies that order attachment writes against earlier and later passes.
VkRenderPass createRenderPass(VkDevice device, const std::vector<AttachmentSpec>& attachments);
// A one-layer framebuffer of `views` at `extent`.
VkFramebuffer createFramebuffer(VkDevice device, VkRenderPass pass, const std::vector<VkImageView>& views,
                                VkExtent2D extent);

enum class DynamicStates {
    kViewportScissor,  // a dynamic-state block with viewport and scissor
    kNone,             // no dynamic-state block: viewport and scissor baked in
    kEmptyBlock,       // a dynamic-state block listing nothing: viewport and scissor baked in
};

struct PipelineDesc {
    VkShaderModule vertex = VK_NULL_HANDLE;
    VkShaderModule fragment = VK_NULL_HANDLE;  // null for depth-only pipelines
    bool meshInput = true;                     // Vertex input; false: vertices from gl_VertexIndex
    VkPipelineLayout layout = VK_NULL_HANDLE;
    VkRenderPass renderPass = VK_NULL_HANDLE;
    uint32_t colorCount = 1;
    bool depthTest = false;
    bool depthWrite = false;
    bool additive = false;
    DynamicStates dynamic = DynamicStates::kViewportScissor;
    VkExtent2D extent = {0, 0};  // the baked viewport without dynamic viewport
    uint32_t fragmentLoops = 0;  // set: the fragment shader's constant_id 0 (a "loops" variant)
};

VkPipeline createPipeline(VkDevice device, const PipelineDesc& desc);
VkPipelineLayout createPipelineLayout(VkDevice device, VkDescriptorSetLayout setLayout);
void setViewport(VkCommandBuffer cmd, VkExtent2D extent);
// The last pass of a frame: one full-screen triangle that samples `set` into the swapchain image.
void recordCompositePass(VkCommandBuffer cmd, VkRenderPass pass, VkFramebuffer framebuffer, VkExtent2D extent,
                         VkPipeline pipeline, VkPipelineLayout layout, VkDescriptorSet set);

// ---- sampled images

// One descriptor set of combined image samplers: binding b holds views[b] (an array when it
// has more than one), all sampled in the fragment shader in SHADER_READ_ONLY_OPTIMAL.
struct SamplerSet {
    VkDescriptorSetLayout layout = VK_NULL_HANDLE;
    VkDescriptorPool pool = VK_NULL_HANDLE;
    VkDescriptorSet set = VK_NULL_HANDLE;

    void create(VkDevice device, VkSampler sampler, const std::vector<std::vector<VkImageView>>& views);
    void destroy(VkDevice device);
};

VkSampler createSampler(VkDevice device, VkFilter filter);

// ---- GPU time

// Times render passes with timestamps around them and appends {"frame":N,"pass":"LABEL","ms":X}
// lines to a file once the frame's fence has signalled. Without a file, or where the queue has no
// timestamps (logged), every call does nothing.
class GpuTimer {
public:
    GpuTimer() = default;
    GpuTimer(vkh::Context& ctx, const std::string& path, uint32_t maxPasses);
    ~GpuTimer();
    GpuTimer(const GpuTimer&) = delete;
    GpuTimer& operator=(const GpuTimer&) = delete;

    // At the start of frame `frame` (from 0), outside any pass: resets the queries.
    void beginFrame(VkCommandBuffer cmd, uint32_t frame);
    void beginPass(VkCommandBuffer cmd, const char* label);
    void endPass(VkCommandBuffer cmd);
    // Once the frame recorded last has finished: writes its lines.
    void collect();

private:
    VkDevice device_ = VK_NULL_HANDLE;
    VkQueryPool pool_ = VK_NULL_HANDLE;
    FILE* file_ = nullptr;
    double nsPerTick_ = 1.0;
    uint64_t mask_ = ~0ull;
    uint32_t maxPasses_ = 0;
    uint32_t frame_ = 0;
    std::vector<std::string> labels_;  // of the frame recorded last, in order
    bool pending_ = false;
};

// ---- frames

// Presents frames on a headless swapchain, one frame in flight. `record` fills the frame's
// primary command buffer; it must leave the swapchain image in PRESENT_SRC_KHR. When `record`
// runs, the device has finished the frame before.
class Presenter {
public:
    Presenter(vkh::Context& ctx, uint32_t width, uint32_t height);
    ~Presenter();

    using RecordFrame = std::function<void(VkCommandBuffer cmd, uint32_t imageIndex, uint32_t frame)>;
    // Runs `frames` frames; writes the last one to `png` when it is not empty, every one when
    // `png` holds "%d" (replaced by the frame number from 1). Returns seconds.
    double run(uint32_t frames, const RecordFrame& record, const std::string& png);
    // What run() does for frame `frame` (from 0) of `frames`, and after the last one: programs
    // that present on several devices in turn call these.
    void present(uint32_t frame, uint32_t frames, const RecordFrame& record, const std::string& png);
    void finish();

    // Microseconds that each vkQueuePresentKHR took, one line per frame, written to `path` by
    // finish() (for the present-time benchmark).
    std::string presentTimesPath;
    vkh::Swapchain swapchain;

    // GPU times of the frames' passes into `path` (nothing when empty); `record` brackets each
    // pass with timer().beginPass and endPass.
    void timePasses(const std::string& path, uint32_t maxPasses);
    GpuTimer& timer() { return *timer_; }

private:
    vkh::Context& ctx_;
    VkCommandBuffer cmd_ = VK_NULL_HANDLE;
    VkFence fence_ = VK_NULL_HANDLE;
    VkSemaphore acquired_ = VK_NULL_HANDLE;
    std::vector<VkSemaphore> rendered_;  // one per swapchain image: a present may still wait on it
    std::vector<double> presentMicros_;
    std::unique_ptr<GpuTimer> timer_ = std::make_unique<GpuTimer>();
};

// ---- recording threads

// One command pool per recording thread (a pool may be used by one thread at a time), each
// with `perThread` secondaries. Freed with the pools; nothing is freed if the program exits
// without destroying it.
class ThreadPools {
public:
    ThreadPools(vkh::Context& ctx, uint32_t threads, uint32_t perThread);
    ~ThreadPools();
    ThreadPools(const ThreadPools&) = delete;
    ThreadPools& operator=(const ThreadPools&) = delete;

    VkCommandBuffer secondary(uint32_t thread, uint32_t index) const { return secondaries_[thread][index]; }

private:
    VkDevice device_;
    std::vector<VkCommandPool> pools_;
    std::vector<std::vector<VkCommandBuffer>> secondaries_;
};

// Runs job j on thread j % threads and `beside` (when set) on a thread of its own, and returns
// once all have finished; with no threads, everything on the caller's thread, `beside` first.
void runOnThreads(uint32_t threads, const std::vector<std::function<void()>>& jobs,
                  const std::function<void()>& beside);

}  // namespace scene
