// zovk-scene-starrail: the frame structure of Star Rail, headless.
//
// Per frame, in one primary command buffer:
//   1. main pass (the CLEAR variant), contents in a secondary: a G-buffer of N-1 colour targets
//      (R8G8B8A8_SRGB, R8G8B8A8_UNORM, more R8G8B8A8_UNORM) and D24_UNORM_S8_UINT last;
//   2. light pass (B10G11R11_UFLOAT_PACK32 CLEAR + D24_UNORM_S8_UINT LOAD), contents in a
//      secondary: a run of indexed draws, the first resolving the G-buffer, one of them the
//      configured full-rate draw;
//   3. a final pass into the swapchain image that tone-maps the light result; then present.
// Each pass also exists as a DONT_CARE variant; pipelines are created against those variants,
// and so are the framebuffers unless --framebuffer-pass clear says otherwise.
//
// A game's whole life, on request: several devices on the one instance, presenting in turn;
// the secondaries recorded on worker threads (the main pass's contents then spread over several);
// passes, framebuffers and pipelines made again while the game runs; exit() with everything alive.

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "scene_common.h"

#include "composite_frag.h"
#include "fullscreen_vert.h"
#include "mesh_vert.h"
#include "starrail_light_frag.h"
#include "starrail_light_frag_loops.h"
#include "starrail_main_frag_c2.h"
#include "starrail_main_frag_c2_loops.h"
#include "starrail_main_frag_c3.h"
#include "starrail_main_frag_c3_loops.h"
#include "starrail_main_frag_c4.h"
#include "starrail_main_frag_c4_loops.h"
#include "starrail_main_frag_c5.h"
#include "starrail_main_frag_c5_loops.h"
#include "starrail_main_frag_c6.h"
#include "starrail_main_frag_c6_loops.h"
#include "starrail_main_frag_c7.h"
#include "starrail_main_frag_c7_loops.h"
#include "starrail_main_frag_c8.h"
#include "starrail_main_frag_c8_loops.h"

namespace {

struct Spirv {
    const uint32_t* code;
    size_t bytes;
};

#define SPIRV(name) {name##_spv, sizeof(name##_spv)}
// Main-pass fragment shaders by number of colour targets, from 2 up; then with --shader-loops.
const Spirv kMainFragments[] = {
    SPIRV(starrail_main_frag_c2), SPIRV(starrail_main_frag_c3), SPIRV(starrail_main_frag_c4),
    SPIRV(starrail_main_frag_c5), SPIRV(starrail_main_frag_c6), SPIRV(starrail_main_frag_c7),
    SPIRV(starrail_main_frag_c8),
};
const Spirv kMainFragmentsLooping[] = {
    SPIRV(starrail_main_frag_c2_loops), SPIRV(starrail_main_frag_c3_loops), SPIRV(starrail_main_frag_c4_loops),
    SPIRV(starrail_main_frag_c5_loops), SPIRV(starrail_main_frag_c6_loops), SPIRV(starrail_main_frag_c7_loops),
    SPIRV(starrail_main_frag_c8_loops),
};
const Spirv kLightFragments[] = {SPIRV(starrail_light_frag), SPIRV(starrail_light_frag_loops)};
#undef SPIRV

const char kUsage[] =
    "usage: zovk-scene-starrail [options]\n"
    "  --frames N               frames to present (default 60)\n"
    "  --width N, --height N    resolution of every pass and the swapchain (default 1920x1080)\n"
    "  --png FILE               write the last presented frame as PNG (every frame if FILE\n"
    "                           holds %d, which becomes the frame number)\n"
    "  --main-attachments N     main pass attachment count, depth included (3..9, default 5)\n"
    "  --light-draws N          indexed draws in the light pass (2.., default 14)\n"
    "  --full-rate-draw P,I,N   light draw number P (from 1) has I indices and N instances\n"
    "                           (default 11,3000,1); draw P-1 has I indices and N+1 instances,\n"
    "                           and the last draw, if after P+1, repeats draw P\n"
    "  --framebuffer-pass K     create framebuffers against the 'dontcare' (default) or 'clear'\n"
    "                           variant of each pass\n"
    "  --present-times FILE     write the microseconds each present took, one line per frame\n"
    "  --devices N              N devices on the one instance (1..4, default 1), each with its own\n"
    "                           swapchain, passes and command buffers, presenting frames in turn;\n"
    "                           --png, --present-times and --gpu-time follow the first; the\n"
    "                           last made is destroyed first\n"
    "  --threads N              record each frame's secondaries on N threads (1..16), each with its\n"
    "                           own command pool, the main pass's contents spread over N-1\n"
    "                           secondaries (at least 1); default: all on the main thread\n"
    "  --recreate-passes K      every K frames, make the passes, framebuffers and pipelines again\n"
    "                           (on a thread of their own with --threads, while the frame records\n"
    "                           with the old ones) and destroy those retired K frames before\n"
    "  --exit-alive             call exit() after the last frame, destroying nothing\n"
    "  (--gpu-time labels the passes main, light and other-1, the final one)\n";

struct Options {
    scene::CommonOptions common;
    uint32_t mainAttachments = 5;
    uint32_t lightDraws = 14;
    uint32_t fullRatePos = 11;
    uint32_t fullRateIndices = 3000;
    uint32_t fullRateInstances = 1;
    bool framebuffersOnClear = false;
    std::string presentTimes;
    uint32_t devices = 1;
    uint32_t threads = 0;  // 0: record on the main thread
    uint32_t recreateEvery = 0;
    bool exitAlive = false;
};

Options parseOptions(int argc, char** argv) {
    Options o;
    scene::parseOptions(argc, argv, kUsage, o.common, [&](const std::string& arg, int& i) {
        if (arg == "--main-attachments") {
            o.mainAttachments = scene::parseNumber(scene::optionValue(argc, argv, i), "--main-attachments", 3, 9);
        } else if (arg == "--light-draws") {
            o.lightDraws = scene::parseNumber(scene::optionValue(argc, argv, i), "--light-draws", 2, 4096);
        } else if (arg == "--full-rate-draw") {
            const std::vector<uint32_t> v = scene::parseNumberList(scene::optionValue(argc, argv, i), "--full-rate-draw", 3);
            o.fullRatePos = v[0];
            o.fullRateIndices = v[1];
            o.fullRateInstances = v[2];
        } else if (arg == "--framebuffer-pass") {
            const std::string kind = scene::optionValue(argc, argv, i);
            if (kind != "clear" && kind != "dontcare") vkh::fail("--framebuffer-pass: 'clear' or 'dontcare'");
            o.framebuffersOnClear = kind == "clear";
        } else if (arg == "--present-times") {
            o.presentTimes = scene::optionValue(argc, argv, i);
        } else if (arg == "--devices") {
            o.devices = scene::parseNumber(scene::optionValue(argc, argv, i), "--devices", 1, 4);
        } else if (arg == "--threads") {
            o.threads = scene::parseNumber(scene::optionValue(argc, argv, i), "--threads", 1, 16);
        } else if (arg == "--recreate-passes") {
            o.recreateEvery = scene::parseNumber(scene::optionValue(argc, argv, i), "--recreate-passes", 1, 1000000);
        } else if (arg == "--exit-alive") {
            o.exitAlive = true;
        } else {
            return false;
        }
        return true;
    });
    // Draw 1 resolves the G-buffer, so the full-rate draw comes later.
    if (o.fullRatePos < 2 || o.fullRatePos > o.lightDraws) {
        vkh::fail("--full-rate-draw: the draw number must be from 2 to the light draw count (%u)", o.lightDraws);
    }
    if (o.fullRateIndices < 3 || o.fullRateIndices > 3000000) vkh::fail("--full-rate-draw: 3 to 3000000 indices");
    if (o.fullRateInstances < 1 || o.fullRateInstances > 64) vkh::fail("--full-rate-draw: 1 to 64 instances");
    return o;
}

enum class LightKind { kResolve, kSprites, kRing };

struct LightDraw {
    LightKind kind;
    uint32_t indexCount;
    uint32_t instanceCount;
    scene::DrawConstants constants;
};

// The light pass's draws, numbered from 1 as the draw counter of the light secondary counts them.
std::vector<LightDraw> planLightDraws(const Options& o, const scene::MeshRange& quad) {
    std::vector<LightDraw> draws;
    for (uint32_t n = 1; n <= o.lightDraws; ++n) {
        LightDraw d;
        if (n == 1) {
            d = {LightKind::kResolve, quad.indexCount, 1, {}};  // full-screen quad, fragment mode 0
        } else if (n == o.fullRatePos || n + 1 == o.fullRatePos ||
                   (n == o.lightDraws && n >= o.fullRatePos + 2)) {
            // The full-rate draw, its near miss just before it (one more instance) and its
            // repeat at the end (outside any range that ends right after it).
            const bool nearMiss = n + 1 == o.fullRatePos;
            const bool repeat = n > o.fullRatePos;
            d = {LightKind::kRing, o.fullRateIndices, o.fullRateInstances + (nearMiss ? 1u : 0u), {}};
            const float scale = nearMiss || repeat ? 0.3f : 0.55f;
            const float x = nearMiss ? -0.6f : repeat ? 0.6f : 0.0f;
            const float y = nearMiss ? 0.45f : repeat ? -0.45f : 0.0f;
            d.constants = {{x, y, scale * 0.5625f, scale}, {1.0f, 0.8f, 0.9f, 2}, {0.12f, 0.2f, 0, 0}};
        } else {
            // Light sprites, a different count and colour per draw.
            const uint32_t instances = 2 + n % 6;
            const float hue = float(n) * 0.7f;
            d = {LightKind::kSprites, quad.indexCount, instances, {}};
            const float row = float(n % 5) * 0.38f - 0.8f;
            d.constants = {{-0.85f + 0.05f * float(n % 3), row, 0.16f, 0.22f},
                           {0.6f + 0.4f * std::sin(hue), 0.6f + 0.4f * std::sin(hue + 2.0f),
                            0.6f + 0.4f * std::sin(hue + 4.0f), 1},
                           {0.24f, 0.0f, 0.0f, 0.0f}};
        }
        draws.push_back(d);
    }
    return draws;
}

// What the frame's passes are made of; --recreate-passes makes them again while the game runs.
struct Passes {
    VkRenderPass mainClear, mainDontCare, lightClear, lightDontCare, finalPass;
    VkFramebuffer mainFramebuffer, lightFramebuffer;
    std::vector<VkFramebuffer> finalFramebuffers;
    VkPipeline mainPipeline, resolvePipeline, additivePipeline, finalPipeline;
};

// Everything of the scene on one device: targets, passes, pipelines, meshes, command buffers.
class StarRailDevice {
public:
    // On `shared`'s instance when given, on an instance of its own otherwise.
    StarRailDevice(const Options& o, const vkh::Context* shared);
    ~StarRailDevice();
    StarRailDevice(const StarRailDevice&) = delete;
    StarRailDevice& operator=(const StarRailDevice&) = delete;

    const vkh::Context& context() const { return *ctx_; }
    scene::Presenter& presenter() { return *presenter_; }
    const std::vector<LightDraw>& lightDraws() const { return lightDraws_; }
    void recordFrame(VkCommandBuffer cmd, uint32_t imageIndex, uint32_t frame);

private:
    std::unique_ptr<Passes> makePasses();
    void destroyPasses(std::unique_ptr<Passes>& passes);
    void beginSecondary(VkCommandBuffer cmd, VkRenderPass pass, VkFramebuffer framebuffer);
    void recordMainPart(const Passes& p, uint32_t part, uint32_t frame);
    void recordLight(const Passes& p);

    const Options& o_;
    const VkExtent2D extent_;
    const uint32_t colorCount_;
    const uint32_t mainParts_;
    std::unique_ptr<vkh::Context> ctx_;
    VkDevice device_;
    std::vector<VkFormat> mainFormats_;
    std::vector<vkh::Image> mainTargets_;
    vkh::Image depth_, light_;
    std::unique_ptr<scene::Presenter> presenter_;
    VkSampler nearest_, linear_;
    scene::SamplerSet gbufferSet_, lightSet_;
    VkPipelineLayout mainLayout_, lightLayout_, finalLayout_;
    VkShaderModule meshVert_, mainFrag_, lightFrag_, fullVert_, compFrag_;
    std::unique_ptr<Passes> current_, retired_;
    scene::MeshBuffers meshes_;
    scene::MeshRange grid_, quad_, ring_;
    std::vector<LightDraw> lightDraws_;
    std::unique_ptr<scene::ThreadPools> pools_;  // with --threads
    std::vector<VkCommandBuffer> mainSecondaries_;
    VkCommandBuffer lightSecondary_;
};

constexpr VkFormat kDepthFormat = VK_FORMAT_D24_UNORM_S8_UINT;
constexpr VkFormat kLightFormat = VK_FORMAT_B10G11R11_UFLOAT_PACK32;
constexpr uint32_t kBlocks = 24;  // instanced blocks of the main pass

StarRailDevice::StarRailDevice(const Options& o, const vkh::Context* shared)
    : o_(o),
      extent_{o.common.width, o.common.height},
      colorCount_(o.mainAttachments - 1),
      mainParts_(o.threads > 1 ? o.threads - 1 : 1) {
    vkh::ContextDesc desc;
    desc.appName = "StarRail";
    desc.headlessSurface = true;
    ctx_ = shared ? std::make_unique<vkh::Context>(desc, *shared) : std::make_unique<vkh::Context>(desc);
    vkh::Context& ctx = *ctx_;
    device_ = ctx.device;
    if (colorCount_ > ctx.properties.limits.maxColorAttachments) {
        vkh::fail("--main-attachments %u: the device has %u colour attachments", o.mainAttachments,
                  ctx.properties.limits.maxColorAttachments);
    }
    if (!ctx.supportsOptimal(kDepthFormat, VK_FORMAT_FEATURE_DEPTH_STENCIL_ATTACHMENT_BIT)) {
        vkh::fail("the device cannot render to VK_FORMAT_D24_UNORM_S8_UINT, which the scene needs");
    }
    if (!ctx.supportsOptimal(kLightFormat, VK_FORMAT_FEATURE_COLOR_ATTACHMENT_BLEND_BIT |
                                               VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT)) {
        vkh::fail("the device cannot blend into and filter VK_FORMAT_B10G11R11_UFLOAT_PACK32");
    }

    // ---- render targets
    mainFormats_ = {VK_FORMAT_R8G8B8A8_SRGB, VK_FORMAT_R8G8B8A8_UNORM};
    while (mainFormats_.size() < colorCount_) mainFormats_.push_back(VK_FORMAT_R8G8B8A8_UNORM);
    for (uint32_t i = 0; i < colorCount_; ++i) {
        // The light pass samples the first two targets.
        const VkImageUsageFlags sampled = i < 2 ? VK_IMAGE_USAGE_SAMPLED_BIT : 0;
        mainTargets_.push_back(
            ctx.createImage(mainFormats_[i], extent_, VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | sampled));
    }
    depth_ = ctx.createImage(kDepthFormat, extent_, VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT);
    light_ = ctx.createImage(kLightFormat, extent_, VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT);
    presenter_ = std::make_unique<scene::Presenter>(ctx, extent_.width, extent_.height);

    // ---- what the pipelines use
    nearest_ = scene::createSampler(device_, VK_FILTER_NEAREST);
    linear_ = scene::createSampler(device_, VK_FILTER_LINEAR);
    gbufferSet_.create(device_, nearest_, {{mainTargets_[0].view}, {mainTargets_[1].view}});
    lightSet_.create(device_, linear_, {{light_.view}});
    mainLayout_ = scene::createPipelineLayout(device_, VK_NULL_HANDLE);
    lightLayout_ = scene::createPipelineLayout(device_, gbufferSet_.layout);
    finalLayout_ = scene::createPipelineLayout(device_, lightSet_.layout);
    meshVert_ = ctx.createShader(mesh_vert_spv, sizeof(mesh_vert_spv));
    const bool looping = o.common.shaderLoops > 1;
    const Spirv& mainFragCode = (looping ? kMainFragmentsLooping : kMainFragments)[colorCount_ - 2];
    mainFrag_ = ctx.createShader(mainFragCode.code, mainFragCode.bytes);
    const Spirv& lightFragCode = kLightFragments[looping ? 1 : 0];
    lightFrag_ = ctx.createShader(lightFragCode.code, lightFragCode.bytes);
    fullVert_ = ctx.createShader(fullscreen_vert_spv, sizeof(fullscreen_vert_spv));
    compFrag_ = ctx.createShader(composite_frag_spv, sizeof(composite_frag_spv));
    current_ = makePasses();

    // ---- meshes
    grid_ = meshes_.add(scene::makeGrid(48, 27, 0.9f, 0.6f));
    quad_ = meshes_.add(scene::makeQuad(0.5f, 0.9f, 0.7f, 0.4f));
    ring_ = meshes_.add(scene::makeRing(o.fullRateIndices, 0.2f));
    meshes_.upload(ctx);
    lightDraws_ = planLightDraws(o, quad_);

    // ---- secondaries: job j (the main parts, then the light pass) records on thread j % threads
    const uint32_t jobs = mainParts_ + 1;
    std::vector<VkCommandBuffer> secondaries(jobs);
    if (o.threads == 0) {
        VkCommandBufferAllocateInfo alloc = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
        alloc.commandPool = ctx.commandPool;
        alloc.level = VK_COMMAND_BUFFER_LEVEL_SECONDARY;
        alloc.commandBufferCount = jobs;
        VKH_CHECK(vkAllocateCommandBuffers(device_, &alloc, secondaries.data()));
    } else {
        pools_ = std::make_unique<scene::ThreadPools>(ctx, o.threads, (jobs + o.threads - 1) / o.threads);
        for (uint32_t j = 0; j < jobs; ++j) secondaries[j] = pools_->secondary(j % o.threads, j / o.threads);
    }
    mainSecondaries_.assign(secondaries.begin(), secondaries.end() - 1);
    lightSecondary_ = secondaries.back();
}

std::unique_ptr<Passes> StarRailDevice::makePasses() {
    auto p = std::make_unique<Passes>();
    // ---- render passes: each in a CLEAR (used by the frame) and a DONT_CARE variant
    const VkImageLayout readOnly = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
    const VkImageLayout depthLayout = VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL;
    auto mainAttachments = [&](VkAttachmentLoadOp load) {
        std::vector<scene::AttachmentSpec> a;
        for (uint32_t i = 0; i < colorCount_; ++i) {
            a.push_back({mainFormats_[i], load, VK_IMAGE_LAYOUT_UNDEFINED,
                         i < 2 ? readOnly : VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL});
        }
        a.push_back({kDepthFormat, load, VK_IMAGE_LAYOUT_UNDEFINED, depthLayout});
        return a;
    };
    p->mainClear = scene::createRenderPass(device_, mainAttachments(VK_ATTACHMENT_LOAD_OP_CLEAR));
    p->mainDontCare = scene::createRenderPass(device_, mainAttachments(VK_ATTACHMENT_LOAD_OP_DONT_CARE));
    // The light pass draws over the depth of the main pass.
    p->lightClear = scene::createRenderPass(
        device_, {{kLightFormat, VK_ATTACHMENT_LOAD_OP_CLEAR, VK_IMAGE_LAYOUT_UNDEFINED, readOnly},
                  {kDepthFormat, VK_ATTACHMENT_LOAD_OP_LOAD, depthLayout, depthLayout}});
    p->lightDontCare = scene::createRenderPass(
        device_, {{kLightFormat, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED, readOnly},
                  {kDepthFormat, VK_ATTACHMENT_LOAD_OP_DONT_CARE, depthLayout, depthLayout}});
    const vkh::Swapchain& swapchain = presenter_->swapchain;
    p->finalPass = scene::createRenderPass(
        device_, {{swapchain.format, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED,
                   VK_IMAGE_LAYOUT_PRESENT_SRC_KHR}});

    // ---- framebuffers at the configured resolution
    std::vector<VkImageView> mainViews;
    for (const vkh::Image& t : mainTargets_) mainViews.push_back(t.view);
    mainViews.push_back(depth_.view);
    p->mainFramebuffer =
        scene::createFramebuffer(device_, o_.framebuffersOnClear ? p->mainClear : p->mainDontCare, mainViews, extent_);
    p->lightFramebuffer = scene::createFramebuffer(device_, o_.framebuffersOnClear ? p->lightClear : p->lightDontCare,
                                                   {light_.view, depth_.view}, extent_);
    for (VkImageView view : swapchain.views) {
        p->finalFramebuffers.push_back(scene::createFramebuffer(device_, p->finalPass, {view}, extent_));
    }

    // ---- pipelines, against the DONT_CARE variants
    scene::PipelineDesc pipeline;
    pipeline.vertex = meshVert_;
    pipeline.fragment = mainFrag_;
    pipeline.layout = mainLayout_;
    pipeline.renderPass = p->mainDontCare;
    pipeline.colorCount = colorCount_;
    pipeline.depthTest = pipeline.depthWrite = true;
    pipeline.fragmentLoops = o_.common.shaderLoops > 1 ? o_.common.shaderLoops : 0;
    p->mainPipeline = scene::createPipeline(device_, pipeline);

    pipeline.fragment = lightFrag_;
    pipeline.layout = lightLayout_;
    pipeline.renderPass = p->lightDontCare;
    pipeline.colorCount = 1;
    pipeline.depthTest = pipeline.depthWrite = false;
    p->resolvePipeline = scene::createPipeline(device_, pipeline);
    pipeline.depthTest = true;  // lights hide behind the scene, but never write depth
    pipeline.additive = true;
    p->additivePipeline = scene::createPipeline(device_, pipeline);

    pipeline = scene::PipelineDesc();
    pipeline.vertex = fullVert_;
    pipeline.fragment = compFrag_;
    pipeline.meshInput = false;
    pipeline.layout = finalLayout_;
    pipeline.renderPass = p->finalPass;
    p->finalPipeline = scene::createPipeline(device_, pipeline);
    return p;
}

void StarRailDevice::destroyPasses(std::unique_ptr<Passes>& p) {
    if (!p) return;
    for (VkPipeline pipeline : {p->mainPipeline, p->resolvePipeline, p->additivePipeline, p->finalPipeline}) {
        vkDestroyPipeline(device_, pipeline, nullptr);
    }
    for (VkFramebuffer fb : p->finalFramebuffers) vkDestroyFramebuffer(device_, fb, nullptr);
    vkDestroyFramebuffer(device_, p->lightFramebuffer, nullptr);
    vkDestroyFramebuffer(device_, p->mainFramebuffer, nullptr);
    for (VkRenderPass pass : {p->mainClear, p->mainDontCare, p->lightClear, p->lightDontCare, p->finalPass}) {
        vkDestroyRenderPass(device_, pass, nullptr);
    }
    p.reset();
}

// Begin and inheritance infos are built afresh every time: what the game passes may be
// rewritten in place below us.
void StarRailDevice::beginSecondary(VkCommandBuffer cmd, VkRenderPass pass, VkFramebuffer framebuffer) {
    VkCommandBufferInheritanceInfo inheritance = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_INHERITANCE_INFO};
    inheritance.renderPass = pass;
    inheritance.subpass = 0;
    inheritance.framebuffer = framebuffer;
    VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    begin.flags = VK_COMMAND_BUFFER_USAGE_RENDER_PASS_CONTINUE_BIT | VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    begin.pInheritanceInfo = &inheritance;
    VKH_CHECK(vkBeginCommandBuffer(cmd, &begin));
}

void push(VkCommandBuffer cmd, VkPipelineLayout layout, const scene::DrawConstants& c) {
    vkCmdPushConstants(cmd, layout, scene::kDrawConstantStages, 0, sizeof(c), &c);
}

// Main pass contents: the ground grid (part 0) and rows of instanced blocks, shared among the parts
// in order, so that the pixels do not depend on how many parts there are.
void StarRailDevice::recordMainPart(const Passes& p, uint32_t part, uint32_t frame) {
    const VkCommandBuffer cmd = mainSecondaries_[part];
    beginSecondary(cmd, p.mainClear, p.mainFramebuffer);
    vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, p.mainPipeline);
    scene::setViewport(cmd, extent_);
    meshes_.bind(cmd);
    scene::DrawConstants c;
    if (part == 0) {
        push(cmd, mainLayout_, c);
        vkCmdDrawIndexed(cmd, grid_.indexCount, 1, grid_.firstIndex, grid_.vertexOffset, 0);
    }
    const float sway = 0.05f * float(frame % 40) / 40.0f;
    c = {{-0.8f + sway, -0.7f, 0.07f, 0.22f}, {0.9f, 0.5f, 0.3f, 0}, {0.22f, 0.6f, -0.01f, 0}};
    push(cmd, mainLayout_, c);
    const uint32_t first = kBlocks * part / mainParts_, end = kBlocks * (part + 1) / mainParts_;
    vkCmdDrawIndexed(cmd, quad_.indexCount, end - first, quad_.firstIndex, quad_.vertexOffset, first);
    VKH_CHECK(vkEndCommandBuffer(cmd));
}

// Light pass contents: the numbered run of indexed draws.
void StarRailDevice::recordLight(const Passes& p) {
    const VkCommandBuffer cmd = lightSecondary_;
    beginSecondary(cmd, p.lightClear, p.lightFramebuffer);
    scene::setViewport(cmd, extent_);
    meshes_.bind(cmd);
    vkCmdBindDescriptorSets(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, lightLayout_, 0, 1, &gbufferSet_.set, 0, nullptr);
    VkPipeline bound = VK_NULL_HANDLE;
    for (const LightDraw& d : lightDraws_) {
        VkPipeline want = d.kind == LightKind::kResolve ? p.resolvePipeline : p.additivePipeline;
        if (want != bound) {
            vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, want);
            bound = want;
        }
        push(cmd, lightLayout_, d.constants);
        const scene::MeshRange& mesh = d.kind == LightKind::kRing ? ring_ : quad_;
        vkCmdDrawIndexed(cmd, d.indexCount, d.instanceCount, mesh.firstIndex, mesh.vertexOffset, 0);
    }
    VKH_CHECK(vkEndCommandBuffer(cmd));
}

void StarRailDevice::recordFrame(VkCommandBuffer cmd, uint32_t imageIndex, uint32_t frame) {
    // The device finished the frame before: what was retired K frames ago is no longer in use.
    const bool recreate = o_.recreateEvery != 0 && frame != 0 && frame % o_.recreateEvery == 0;
    std::unique_ptr<Passes> next;
    std::function<void()> rebuild;
    if (recreate) {
        rebuild = [&] {
            destroyPasses(retired_);
            next = makePasses();
        };
    }
    const Passes& p = *current_;
    std::vector<std::function<void()>> jobs;
    for (uint32_t part = 0; part < mainParts_; ++part) jobs.push_back([&, part] { recordMainPart(p, part, frame); });
    jobs.push_back([&] { recordLight(p); });
    scene::runOnThreads(o_.threads, jobs, rebuild);

    std::vector<VkClearValue> clears(o_.mainAttachments);
    for (uint32_t i = 0; i < colorCount_; ++i) clears[i].color = {{0.05f, 0.05f, 0.08f, 1.0f}};
    clears[colorCount_].depthStencil = {1.0f, 0};
    VkRenderPassBeginInfo begin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    begin.renderPass = p.mainClear;
    begin.framebuffer = p.mainFramebuffer;
    begin.renderArea = {{0, 0}, extent_};
    begin.clearValueCount = uint32_t(clears.size());
    begin.pClearValues = clears.data();
    scene::GpuTimer& timer = presenter_->timer();
    timer.beginPass(cmd, "main");
    vkCmdBeginRenderPass(cmd, &begin, VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS);
    vkCmdExecuteCommands(cmd, mainParts_, mainSecondaries_.data());
    vkCmdEndRenderPass(cmd);
    timer.endPass(cmd);

    VkClearValue lightClears[2] = {};
    lightClears[0].color = {{0.0f, 0.0f, 0.0f, 1.0f}};
    VkRenderPassBeginInfo lightBegin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    lightBegin.renderPass = p.lightClear;
    lightBegin.framebuffer = p.lightFramebuffer;
    lightBegin.renderArea = {{0, 0}, extent_};
    lightBegin.clearValueCount = 2;
    lightBegin.pClearValues = lightClears;
    timer.beginPass(cmd, "light");
    vkCmdBeginRenderPass(cmd, &lightBegin, VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS);
    vkCmdExecuteCommands(cmd, 1, &lightSecondary_);
    vkCmdEndRenderPass(cmd);
    timer.endPass(cmd);

    timer.beginPass(cmd, "other-1");
    scene::recordCompositePass(cmd, p.finalPass, p.finalFramebuffers[imageIndex], extent_, p.finalPipeline,
                               finalLayout_, lightSet_.set);
    timer.endPass(cmd);
    if (recreate) {
        retired_ = std::move(current_);
        current_ = std::move(next);
    }
}

// Teardown: everything, so that nothing is reported as leaked.
StarRailDevice::~StarRailDevice() {
    VKH_CHECK(vkDeviceWaitIdle(device_));
    if (!pools_) {
        std::vector<VkCommandBuffer> secondaries = mainSecondaries_;
        secondaries.push_back(lightSecondary_);
        vkFreeCommandBuffers(device_, ctx_->commandPool, uint32_t(secondaries.size()), secondaries.data());
    }
    meshes_.destroy(*ctx_);
    destroyPasses(current_);
    destroyPasses(retired_);
    for (VkShaderModule m : {meshVert_, mainFrag_, lightFrag_, fullVert_, compFrag_}) {
        vkDestroyShaderModule(device_, m, nullptr);
    }
    for (VkPipelineLayout l : {mainLayout_, lightLayout_, finalLayout_}) vkDestroyPipelineLayout(device_, l, nullptr);
    gbufferSet_.destroy(device_);
    lightSet_.destroy(device_);
    vkDestroySampler(device_, nearest_, nullptr);
    vkDestroySampler(device_, linear_, nullptr);
    ctx_->destroy(light_);
    ctx_->destroy(depth_);
    for (vkh::Image& t : mainTargets_) ctx_->destroy(t);
    pools_.reset();
    presenter_.reset();
}

}  // namespace

int main(int argc, char** argv) {
    vkh::setProgramName("zovk-scene-starrail");
    const Options o = parseOptions(argc, argv);
    std::vector<std::unique_ptr<StarRailDevice>> devices;
    for (uint32_t d = 0; d < o.devices; ++d) {
        devices.push_back(std::make_unique<StarRailDevice>(o, d == 0 ? nullptr : &devices[0]->context()));
    }

    const std::vector<LightDraw>& lightDraws = devices[0]->lightDraws();
    std::printf("zovk-scene-starrail: %ux%u, main pass %u attachments, light draws (number:indices x instances):",
                o.common.width, o.common.height, o.mainAttachments);
    for (size_t n = 0; n < lightDraws.size(); ++n) {
        std::printf(" %zu:%ux%u", n + 1, lightDraws[n].indexCount, lightDraws[n].instanceCount);
    }
    std::printf("\n");

    devices[0]->presenter().presentTimesPath = o.presentTimes;
    devices[0]->presenter().timePasses(o.common.gpuTime, 3);
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t frame = 0; frame < o.common.frames; ++frame) {
        for (auto& device : devices) {
            StarRailDevice& d = *device;
            d.presenter().present(
                frame, o.common.frames,
                [&d](VkCommandBuffer cmd, uint32_t imageIndex, uint32_t n) { d.recordFrame(cmd, imageIndex, n); },
                &d == devices[0].get() ? o.common.png : std::string());
        }
    }
    for (auto& device : devices) device->presenter().finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("zovk-scene-starrail: %u frames in %.2f s\n", o.common.frames, seconds);

    // A game that ends without cleaning up: the layer's own exit path runs with everything alive.
    if (o.exitAlive) std::exit(0);
    // The last device made goes first; the first one's instance goes last.
    while (!devices.empty()) devices.pop_back();
    return 0;
}
