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

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "scene_common.h"

#include "composite_frag.h"
#include "fullscreen_vert.h"
#include "mesh_vert.h"
#include "starrail_light_frag.h"
#include "starrail_main_frag_c2.h"
#include "starrail_main_frag_c3.h"
#include "starrail_main_frag_c4.h"
#include "starrail_main_frag_c5.h"
#include "starrail_main_frag_c6.h"
#include "starrail_main_frag_c7.h"
#include "starrail_main_frag_c8.h"

namespace {

struct Spirv {
    const uint32_t* code;
    size_t bytes;
};

// Main-pass fragment shaders by number of colour targets, from 2 up.
const Spirv kMainFragments[] = {
    {starrail_main_frag_c2_spv, sizeof(starrail_main_frag_c2_spv)},
    {starrail_main_frag_c3_spv, sizeof(starrail_main_frag_c3_spv)},
    {starrail_main_frag_c4_spv, sizeof(starrail_main_frag_c4_spv)},
    {starrail_main_frag_c5_spv, sizeof(starrail_main_frag_c5_spv)},
    {starrail_main_frag_c6_spv, sizeof(starrail_main_frag_c6_spv)},
    {starrail_main_frag_c7_spv, sizeof(starrail_main_frag_c7_spv)},
    {starrail_main_frag_c8_spv, sizeof(starrail_main_frag_c8_spv)},
};

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
    "  --present-times FILE     write the microseconds each present took, one line per frame\n";

struct Options {
    scene::CommonOptions common;
    uint32_t mainAttachments = 5;
    uint32_t lightDraws = 14;
    uint32_t fullRatePos = 11;
    uint32_t fullRateIndices = 3000;
    uint32_t fullRateInstances = 1;
    bool framebuffersOnClear = false;
    std::string presentTimes;
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

}  // namespace

int main(int argc, char** argv) {
    vkh::setProgramName("zovk-scene-starrail");
    const Options o = parseOptions(argc, argv);
    const VkExtent2D extent = {o.common.width, o.common.height};
    const uint32_t colorCount = o.mainAttachments - 1;

    vkh::ContextDesc desc;
    desc.appName = "StarRail";
    desc.headlessSurface = true;
    vkh::Context ctx(desc);
    VkDevice device = ctx.device;
    if (colorCount > ctx.properties.limits.maxColorAttachments) {
        vkh::fail("--main-attachments %u: the device has %u colour attachments", o.mainAttachments,
                  ctx.properties.limits.maxColorAttachments);
    }
    const VkFormat depthFormat = VK_FORMAT_D24_UNORM_S8_UINT;
    if (!ctx.supportsOptimal(depthFormat, VK_FORMAT_FEATURE_DEPTH_STENCIL_ATTACHMENT_BIT)) {
        vkh::fail("the device cannot render to VK_FORMAT_D24_UNORM_S8_UINT, which the scene needs");
    }
    const VkFormat lightFormat = VK_FORMAT_B10G11R11_UFLOAT_PACK32;
    if (!ctx.supportsOptimal(lightFormat, VK_FORMAT_FEATURE_COLOR_ATTACHMENT_BLEND_BIT |
                                              VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT)) {
        vkh::fail("the device cannot blend into and filter VK_FORMAT_B10G11R11_UFLOAT_PACK32");
    }

    // ---- render targets
    std::vector<VkFormat> mainFormats = {VK_FORMAT_R8G8B8A8_SRGB, VK_FORMAT_R8G8B8A8_UNORM};
    while (mainFormats.size() < colorCount) mainFormats.push_back(VK_FORMAT_R8G8B8A8_UNORM);
    std::vector<vkh::Image> mainTargets;
    for (uint32_t i = 0; i < colorCount; ++i) {
        // The light pass samples the first two targets.
        const VkImageUsageFlags sampled = i < 2 ? VK_IMAGE_USAGE_SAMPLED_BIT : 0;
        mainTargets.push_back(ctx.createImage(mainFormats[i], extent, VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | sampled));
    }
    vkh::Image depth = ctx.createImage(depthFormat, extent, VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT);
    vkh::Image light =
        ctx.createImage(lightFormat, extent, VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT);

    // ---- render passes: each in a CLEAR (used by the frame) and a DONT_CARE variant
    const VkImageLayout readOnly = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
    const VkImageLayout depthLayout = VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL;
    auto mainAttachments = [&](VkAttachmentLoadOp load) {
        std::vector<scene::AttachmentSpec> a;
        for (uint32_t i = 0; i < colorCount; ++i) {
            a.push_back({mainFormats[i], load, VK_IMAGE_LAYOUT_UNDEFINED,
                         i < 2 ? readOnly : VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL});
        }
        a.push_back({depthFormat, load, VK_IMAGE_LAYOUT_UNDEFINED, depthLayout});
        return a;
    };
    VkRenderPass mainClear = scene::createRenderPass(device, mainAttachments(VK_ATTACHMENT_LOAD_OP_CLEAR));
    VkRenderPass mainDontCare = scene::createRenderPass(device, mainAttachments(VK_ATTACHMENT_LOAD_OP_DONT_CARE));
    // The light pass draws over the depth of the main pass.
    VkRenderPass lightClear = scene::createRenderPass(
        device, {{lightFormat, VK_ATTACHMENT_LOAD_OP_CLEAR, VK_IMAGE_LAYOUT_UNDEFINED, readOnly},
                 {depthFormat, VK_ATTACHMENT_LOAD_OP_LOAD, depthLayout, depthLayout}});
    VkRenderPass lightDontCare = scene::createRenderPass(
        device, {{lightFormat, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED, readOnly},
                 {depthFormat, VK_ATTACHMENT_LOAD_OP_DONT_CARE, depthLayout, depthLayout}});

    scene::Presenter presenter(ctx, extent.width, extent.height);
    const vkh::Swapchain& swapchain = presenter.swapchain;
    VkRenderPass finalPass = scene::createRenderPass(
        device, {{swapchain.format, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED,
                  VK_IMAGE_LAYOUT_PRESENT_SRC_KHR}});

    // ---- framebuffers at the configured resolution
    std::vector<VkImageView> mainViews;
    for (const vkh::Image& t : mainTargets) mainViews.push_back(t.view);
    mainViews.push_back(depth.view);
    VkFramebuffer mainFramebuffer =
        scene::createFramebuffer(device, o.framebuffersOnClear ? mainClear : mainDontCare, mainViews, extent);
    VkFramebuffer lightFramebuffer = scene::createFramebuffer(device, o.framebuffersOnClear ? lightClear : lightDontCare,
                                                              {light.view, depth.view}, extent);
    std::vector<VkFramebuffer> finalFramebuffers;
    for (VkImageView view : swapchain.views) {
        finalFramebuffers.push_back(scene::createFramebuffer(device, finalPass, {view}, extent));
    }

    // ---- pipelines, against the DONT_CARE variants
    VkSampler nearest = scene::createSampler(device, VK_FILTER_NEAREST);
    VkSampler linear = scene::createSampler(device, VK_FILTER_LINEAR);
    scene::SamplerSet gbufferSet, lightSet;
    gbufferSet.create(device, nearest, {{mainTargets[0].view}, {mainTargets[1].view}});
    lightSet.create(device, linear, {{light.view}});
    VkPipelineLayout mainLayout = scene::createPipelineLayout(device, VK_NULL_HANDLE);
    VkPipelineLayout lightLayout = scene::createPipelineLayout(device, gbufferSet.layout);
    VkPipelineLayout finalLayout = scene::createPipelineLayout(device, lightSet.layout);

    VkShaderModule meshVert = ctx.createShader(mesh_vert_spv, sizeof(mesh_vert_spv));
    const Spirv& mainFragCode = kMainFragments[colorCount - 2];
    VkShaderModule mainFrag = ctx.createShader(mainFragCode.code, mainFragCode.bytes);
    VkShaderModule lightFrag = ctx.createShader(starrail_light_frag_spv, sizeof(starrail_light_frag_spv));
    VkShaderModule fullVert = ctx.createShader(fullscreen_vert_spv, sizeof(fullscreen_vert_spv));
    VkShaderModule compFrag = ctx.createShader(composite_frag_spv, sizeof(composite_frag_spv));

    scene::PipelineDesc pipeline;
    pipeline.vertex = meshVert;
    pipeline.fragment = mainFrag;
    pipeline.layout = mainLayout;
    pipeline.renderPass = mainDontCare;
    pipeline.colorCount = colorCount;
    pipeline.depthTest = pipeline.depthWrite = true;
    VkPipeline mainPipeline = scene::createPipeline(device, pipeline);

    pipeline.fragment = lightFrag;
    pipeline.layout = lightLayout;
    pipeline.renderPass = lightDontCare;
    pipeline.colorCount = 1;
    pipeline.depthTest = pipeline.depthWrite = false;
    VkPipeline resolvePipeline = scene::createPipeline(device, pipeline);
    pipeline.depthTest = true;  // lights hide behind the scene, but never write depth
    pipeline.additive = true;
    VkPipeline additivePipeline = scene::createPipeline(device, pipeline);

    pipeline = scene::PipelineDesc();
    pipeline.vertex = fullVert;
    pipeline.fragment = compFrag;
    pipeline.meshInput = false;
    pipeline.layout = finalLayout;
    pipeline.renderPass = finalPass;
    VkPipeline finalPipeline = scene::createPipeline(device, pipeline);

    // ---- meshes
    scene::MeshBuffers meshes;
    const scene::MeshRange grid = meshes.add(scene::makeGrid(48, 27, 0.9f, 0.6f));
    const scene::MeshRange quad = meshes.add(scene::makeQuad(0.5f, 0.9f, 0.7f, 0.4f));
    const scene::MeshRange ring = meshes.add(scene::makeRing(o.fullRateIndices, 0.2f));
    meshes.upload(ctx);
    const std::vector<LightDraw> lightDraws = planLightDraws(o, quad);

    std::printf("zovk-scene-starrail: %ux%u, main pass %u attachments, light draws (number:indices x instances):",
                extent.width, extent.height, o.mainAttachments);
    for (size_t n = 0; n < lightDraws.size(); ++n) {
        std::printf(" %zu:%ux%u", n + 1, lightDraws[n].indexCount, lightDraws[n].instanceCount);
    }
    std::printf("\n");

    VkCommandBuffer secondaries[2];
    VkCommandBufferAllocateInfo alloc = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    alloc.commandPool = ctx.commandPool;
    alloc.level = VK_COMMAND_BUFFER_LEVEL_SECONDARY;
    alloc.commandBufferCount = 2;
    VKH_CHECK(vkAllocateCommandBuffers(device, &alloc, secondaries));
    VkCommandBuffer mainSecondary = secondaries[0], lightSecondary = secondaries[1];

    // Begin and inheritance infos are built afresh every frame: what the game passes may be
    // rewritten in place below us.
    auto beginSecondary = [&](VkCommandBuffer cmd, VkRenderPass pass, VkFramebuffer fb) {
        VkCommandBufferInheritanceInfo inheritance = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_INHERITANCE_INFO};
        inheritance.renderPass = pass;
        inheritance.subpass = 0;
        inheritance.framebuffer = fb;
        VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
        begin.flags = VK_COMMAND_BUFFER_USAGE_RENDER_PASS_CONTINUE_BIT | VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
        begin.pInheritanceInfo = &inheritance;
        VKH_CHECK(vkBeginCommandBuffer(cmd, &begin));
    };
    auto push = [](VkCommandBuffer cmd, VkPipelineLayout layout, const scene::DrawConstants& c) {
        vkCmdPushConstants(cmd, layout, scene::kDrawConstantStages, 0, sizeof(c), &c);
    };

    auto recordFrame = [&](VkCommandBuffer cmd, uint32_t imageIndex, uint32_t frame) {
        // Main pass contents: the ground grid and rows of instanced blocks.
        beginSecondary(mainSecondary, mainClear, mainFramebuffer);
        vkCmdBindPipeline(mainSecondary, VK_PIPELINE_BIND_POINT_GRAPHICS, mainPipeline);
        scene::setViewport(mainSecondary, extent);
        meshes.bind(mainSecondary);
        scene::DrawConstants c;
        push(mainSecondary, mainLayout, c);
        vkCmdDrawIndexed(mainSecondary, grid.indexCount, 1, grid.firstIndex, grid.vertexOffset, 0);
        const float sway = 0.05f * float(frame % 40) / 40.0f;
        c = {{-0.8f + sway, -0.7f, 0.07f, 0.22f}, {0.9f, 0.5f, 0.3f, 0}, {0.22f, 0.6f, -0.01f, 0}};
        push(mainSecondary, mainLayout, c);
        vkCmdDrawIndexed(mainSecondary, quad.indexCount, 24, quad.firstIndex, quad.vertexOffset, 0);
        VKH_CHECK(vkEndCommandBuffer(mainSecondary));

        // Light pass contents: the numbered run of indexed draws.
        beginSecondary(lightSecondary, lightClear, lightFramebuffer);
        scene::setViewport(lightSecondary, extent);
        meshes.bind(lightSecondary);
        vkCmdBindDescriptorSets(lightSecondary, VK_PIPELINE_BIND_POINT_GRAPHICS, lightLayout, 0, 1, &gbufferSet.set, 0,
                                nullptr);
        VkPipeline bound = VK_NULL_HANDLE;
        for (const LightDraw& d : lightDraws) {
            VkPipeline want = d.kind == LightKind::kResolve ? resolvePipeline : additivePipeline;
            if (want != bound) {
                vkCmdBindPipeline(lightSecondary, VK_PIPELINE_BIND_POINT_GRAPHICS, want);
                bound = want;
            }
            push(lightSecondary, lightLayout, d.constants);
            const scene::MeshRange& mesh = d.kind == LightKind::kRing ? ring : quad;
            vkCmdDrawIndexed(lightSecondary, d.indexCount, d.instanceCount, mesh.firstIndex, mesh.vertexOffset, 0);
        }
        VKH_CHECK(vkEndCommandBuffer(lightSecondary));

        std::vector<VkClearValue> clears(o.mainAttachments);
        for (uint32_t i = 0; i < colorCount; ++i) clears[i].color = {{0.05f, 0.05f, 0.08f, 1.0f}};
        clears[colorCount].depthStencil = {1.0f, 0};
        VkRenderPassBeginInfo begin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
        begin.renderPass = mainClear;
        begin.framebuffer = mainFramebuffer;
        begin.renderArea = {{0, 0}, extent};
        begin.clearValueCount = uint32_t(clears.size());
        begin.pClearValues = clears.data();
        vkCmdBeginRenderPass(cmd, &begin, VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS);
        vkCmdExecuteCommands(cmd, 1, &mainSecondary);
        vkCmdEndRenderPass(cmd);

        VkClearValue lightClears[2] = {};
        lightClears[0].color = {{0.0f, 0.0f, 0.0f, 1.0f}};
        VkRenderPassBeginInfo lightBegin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
        lightBegin.renderPass = lightClear;
        lightBegin.framebuffer = lightFramebuffer;
        lightBegin.renderArea = {{0, 0}, extent};
        lightBegin.clearValueCount = 2;
        lightBegin.pClearValues = lightClears;
        vkCmdBeginRenderPass(cmd, &lightBegin, VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS);
        vkCmdExecuteCommands(cmd, 1, &lightSecondary);
        vkCmdEndRenderPass(cmd);

        scene::recordCompositePass(cmd, finalPass, finalFramebuffers[imageIndex], extent, finalPipeline, finalLayout,
                                   lightSet.set);
    };

    presenter.presentTimesPath = o.presentTimes;
    const double seconds = presenter.run(o.common.frames, recordFrame, o.common.png);
    std::printf("zovk-scene-starrail: %u frames in %.2f s\n", o.common.frames, seconds);

    // ---- teardown: everything, so that nothing is reported as leaked
    VKH_CHECK(vkDeviceWaitIdle(device));
    vkFreeCommandBuffers(device, ctx.commandPool, 2, secondaries);
    meshes.destroy(ctx);
    for (VkPipeline p : {mainPipeline, resolvePipeline, additivePipeline, finalPipeline}) vkDestroyPipeline(device, p, nullptr);
    for (VkShaderModule m : {meshVert, mainFrag, lightFrag, fullVert, compFrag}) vkDestroyShaderModule(device, m, nullptr);
    for (VkPipelineLayout l : {mainLayout, lightLayout, finalLayout}) vkDestroyPipelineLayout(device, l, nullptr);
    gbufferSet.destroy(device);
    lightSet.destroy(device);
    vkDestroySampler(device, nearest, nullptr);
    vkDestroySampler(device, linear, nullptr);
    for (VkFramebuffer fb : finalFramebuffers) vkDestroyFramebuffer(device, fb, nullptr);
    vkDestroyFramebuffer(device, lightFramebuffer, nullptr);
    vkDestroyFramebuffer(device, mainFramebuffer, nullptr);
    for (VkRenderPass p : {mainClear, mainDontCare, lightClear, lightDontCare, finalPass}) vkDestroyRenderPass(device, p, nullptr);
    ctx.destroy(light);
    ctx.destroy(depth);
    for (vkh::Image& t : mainTargets) ctx.destroy(t);
    return 0;
}
