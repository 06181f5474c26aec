// zovk-scene-antutu: the frame structure of the AnTuTu benchmark, headless.
//
// Every frame renders a fixed sequence of inline render passes at the render area
// (default 2400x1200), then a final pass that shows four of the results on the swapchain image,
// and presents. The passes come in four kinds, by their attachments:
//   A  one attachment: D24_UNORM_S8_UINT (depth prepass) or R8G8B8A8_UNORM (UI layer)
//   B  B10G11R11_UFLOAT_PACK32 CLEAR + D24_UNORM_S8_UINT LOAD (HDR scene)
//   C  R16G16B16A16_SFLOAT CLEAR + D24_UNORM_S8_UINT LOAD (half-float scene)
//   O  one R16G16B16A16_SFLOAT attachment (bloom): none of the above
// The sequence A B B C C(small) C O B O C C O A walks the benchmark's step machine from its first
// step to its last within one frame: B twice, then C, back to B, back to C, with O passes between
// them; the small C pass is drawn at half the render area. Pipelines come with a dynamic-state
// block (viewport and scissor), with an empty one, and without one.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "scene_common.h"

#include "antutu_pass_frag.h"
#include "antutu_pass_frag_loops.h"
#include "composite_frag_quadrants.h"
#include "fullscreen_vert.h"
#include "mesh_vert.h"

namespace {

const char kUsage[] =
    "usage: zovk-scene-antutu [options]\n"
    "  --frames N                           frames to present (default 200)\n"
    "  --width N, --height N                swapchain size (default 1920x1080)\n"
    "  --render-width N, --render-height N  render area of the scene passes (default 2400x1200)\n"
    "  --png FILE                           write the last presented frame as PNG\n"
    "  (--gpu-time labels the passes as the sequence printed at the start, then final)\n";

struct Options {
    scene::CommonOptions common;
    uint32_t renderWidth = 2400;
    uint32_t renderHeight = 1200;
};

Options parseOptions(int argc, char** argv) {
    Options o;
    o.common.frames = 200;  // past the 120th present, where the benchmark's switch is sampled
    scene::parseOptions(argc, argv, kUsage, o.common, [&](const std::string& arg, int& i) {
        if (arg == "--render-width") {
            o.renderWidth = scene::parseNumber(scene::optionValue(argc, argv, i), "--render-width", 32, 8192);
        } else if (arg == "--render-height") {
            o.renderHeight = scene::parseNumber(scene::optionValue(argc, argv, i), "--render-height", 32, 8192);
        } else {
            return false;
        }
        return true;
    });
    return o;
}

enum Target { kDepthPrepass, kHdr, kHalf, kHalfSmall, kBloom, kUi, kTargetCount };

struct PassStep {
    Target target;
    const char* label;  // the kind by the attachment rules, for the log line
};

const PassStep kSequence[] = {
    {kDepthPrepass, "A"}, {kHdr, "B"},  {kHdr, "B"},   {kHalf, "C"},  {kHalfSmall, "C(small)"},
    {kHalf, "C"},         {kBloom, "O"}, {kHdr, "B"},  {kBloom, "O"}, {kHalf, "C"},
    {kHalf, "C"},         {kBloom, "O"}, {kUi, "A"},
};

}  // namespace

int main(int argc, char** argv) {
    vkh::setProgramName("zovk-scene-antutu");
    const Options o = parseOptions(argc, argv);
    const VkExtent2D area = {o.renderWidth, o.renderHeight};
    const VkExtent2D smallArea = {std::max(16u, area.width / 2), std::max(16u, area.height / 2)};
    const VkExtent2D screen = {o.common.width, o.common.height};

    vkh::ContextDesc desc;
    desc.appName = "AnTuTu";
    desc.headlessSurface = true;
    vkh::Context ctx(desc);
    VkDevice device = ctx.device;

    const VkFormat depthFormat = VK_FORMAT_D24_UNORM_S8_UINT;
    const VkFormat hdrFormat = VK_FORMAT_B10G11R11_UFLOAT_PACK32;
    const VkFormat halfFormat = VK_FORMAT_R16G16B16A16_SFLOAT;
    const VkFormat uiFormat = VK_FORMAT_R8G8B8A8_UNORM;
    if (!ctx.supportsOptimal(depthFormat, VK_FORMAT_FEATURE_DEPTH_STENCIL_ATTACHMENT_BIT)) {
        vkh::fail("the device cannot render to VK_FORMAT_D24_UNORM_S8_UINT, which the scene needs");
    }
    for (VkFormat f : {hdrFormat, halfFormat, uiFormat}) {
        if (!ctx.supportsOptimal(f, VK_FORMAT_FEATURE_COLOR_ATTACHMENT_BIT |
                                        VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT)) {
            vkh::fail("the device cannot render to and filter format %d", int(f));
        }
    }

    // ---- targets
    const VkImageUsageFlags colorUsage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT;
    vkh::Image depth = ctx.createImage(depthFormat, area, VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT);
    vkh::Image smallDepth = ctx.createImage(
        depthFormat, smallArea, VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT);
    vkh::Image hdr = ctx.createImage(hdrFormat, area, colorUsage);
    vkh::Image half = ctx.createImage(halfFormat, area, colorUsage);
    vkh::Image halfSmall = ctx.createImage(halfFormat, smallArea, colorUsage);
    vkh::Image bloom = ctx.createImage(halfFormat, area, colorUsage);
    vkh::Image ui = ctx.createImage(uiFormat, area, colorUsage);

    // The small C pass loads a depth that no pass of the frame writes: clear it once.
    {
        VkCommandBuffer cmd = ctx.beginOneShot();
        const VkImageAspectFlags aspect = vkh::aspectOf(depthFormat);
        vkh::transition(cmd, smallDepth.image, aspect, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                        VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, 0, VK_PIPELINE_STAGE_TRANSFER_BIT,
                        VK_ACCESS_TRANSFER_WRITE_BIT);
        const VkClearDepthStencilValue value = {1.0f, 0};
        const VkImageSubresourceRange range = {aspect, 0, 1, 0, 1};
        vkCmdClearDepthStencilImage(cmd, smallDepth.image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &value, 1, &range);
        vkh::transition(cmd, smallDepth.image, aspect, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                        VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL, VK_PIPELINE_STAGE_TRANSFER_BIT,
                        VK_ACCESS_TRANSFER_WRITE_BIT, VK_PIPELINE_STAGE_EARLY_FRAGMENT_TESTS_BIT,
                        VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_READ_BIT | VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT);
        ctx.endOneShot(cmd);
    }

    // ---- render passes
    const VkImageLayout readOnly = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
    const VkImageLayout depthLayout = VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL;
    const VkAttachmentLoadOp clear = VK_ATTACHMENT_LOAD_OP_CLEAR, load = VK_ATTACHMENT_LOAD_OP_LOAD;
    VkRenderPass depthPass = scene::createRenderPass(device, {{depthFormat, clear, VK_IMAGE_LAYOUT_UNDEFINED, depthLayout}});
    VkRenderPass hdrPass = scene::createRenderPass(
        device, {{hdrFormat, clear, VK_IMAGE_LAYOUT_UNDEFINED, readOnly}, {depthFormat, load, depthLayout, depthLayout}});
    VkRenderPass halfPass = scene::createRenderPass(
        device, {{halfFormat, clear, VK_IMAGE_LAYOUT_UNDEFINED, readOnly}, {depthFormat, load, depthLayout, depthLayout}});
    VkRenderPass bloomPass = scene::createRenderPass(device, {{halfFormat, clear, VK_IMAGE_LAYOUT_UNDEFINED, readOnly}});
    VkRenderPass uiPass = scene::createRenderPass(device, {{uiFormat, clear, VK_IMAGE_LAYOUT_UNDEFINED, readOnly}});

    scene::Presenter presenter(ctx, screen.width, screen.height);
    const vkh::Swapchain& swapchain = presenter.swapchain;
    VkRenderPass finalPass = scene::createRenderPass(
        device, {{swapchain.format, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED,
                  VK_IMAGE_LAYOUT_PRESENT_SRC_KHR}});

    // ---- framebuffers, by target
    struct TargetInfo {
        VkRenderPass pass;
        VkFramebuffer framebuffer;
        VkExtent2D extent;
        VkPipeline pipeline;
        bool dynamicViewport;
    };
    TargetInfo targets[kTargetCount] = {};
    auto framebuffer = [&](VkRenderPass pass, std::vector<VkImageView> views, VkExtent2D extent) {
        return scene::createFramebuffer(device, pass, views, extent);
    };
    targets[kDepthPrepass] = {depthPass, framebuffer(depthPass, {depth.view}, area), area, VK_NULL_HANDLE, false};
    targets[kHdr] = {hdrPass, framebuffer(hdrPass, {hdr.view, depth.view}, area), area, VK_NULL_HANDLE, true};
    targets[kHalf] = {halfPass, framebuffer(halfPass, {half.view, depth.view}, area), area, VK_NULL_HANDLE, false};
    targets[kHalfSmall] = {halfPass, framebuffer(halfPass, {halfSmall.view, smallDepth.view}, smallArea), smallArea,
                           VK_NULL_HANDLE, true};
    targets[kBloom] = {bloomPass, framebuffer(bloomPass, {bloom.view}, area), area, VK_NULL_HANDLE, false};
    targets[kUi] = {uiPass, framebuffer(uiPass, {ui.view}, area), area, VK_NULL_HANDLE, true};
    std::vector<VkFramebuffer> finalFramebuffers;
    for (VkImageView view : swapchain.views) {
        finalFramebuffers.push_back(framebuffer(finalPass, {view}, screen));
    }

    // ---- pipelines: with a viewport/scissor block, with an empty block, with none
    VkSampler linear = scene::createSampler(device, VK_FILTER_LINEAR);
    scene::SamplerSet compositeSet;
    compositeSet.create(device, linear, {{hdr.view, half.view, bloom.view, ui.view}});
    VkPipelineLayout passLayout = scene::createPipelineLayout(device, VK_NULL_HANDLE);
    VkPipelineLayout finalLayout = scene::createPipelineLayout(device, compositeSet.layout);
    VkShaderModule meshVert = ctx.createShader(mesh_vert_spv, sizeof(mesh_vert_spv));
    const uint32_t loops = o.common.shaderLoops > 1 ? o.common.shaderLoops : 0;
    VkShaderModule passFrag = loops ? ctx.createShader(antutu_pass_frag_loops_spv, sizeof(antutu_pass_frag_loops_spv))
                                    : ctx.createShader(antutu_pass_frag_spv, sizeof(antutu_pass_frag_spv));
    VkShaderModule fullVert = ctx.createShader(fullscreen_vert_spv, sizeof(fullscreen_vert_spv));
    VkShaderModule compFrag = ctx.createShader(composite_frag_quadrants_spv, sizeof(composite_frag_quadrants_spv));

    std::vector<VkPipeline> pipelines;
    auto makePipeline = [&](VkRenderPass pass, bool colour, bool depthTest, scene::DynamicStates dynamic) {
        scene::PipelineDesc pipeline;
        pipeline.vertex = meshVert;
        pipeline.fragment = colour ? passFrag : VK_NULL_HANDLE;
        pipeline.layout = passLayout;
        pipeline.renderPass = pass;
        pipeline.colorCount = colour ? 1 : 0;
        pipeline.depthTest = depthTest;
        pipeline.depthWrite = depthTest && !colour;  // only the prepass writes depth; the rest test against it
        pipeline.dynamic = dynamic;
        pipeline.extent = area;
        pipeline.fragmentLoops = loops;
        pipelines.push_back(scene::createPipeline(device, pipeline));
        return pipelines.back();
    };
    using scene::DynamicStates;
    targets[kDepthPrepass].pipeline = makePipeline(depthPass, false, true, DynamicStates::kNone);
    targets[kHdr].pipeline = makePipeline(hdrPass, true, true, DynamicStates::kViewportScissor);
    targets[kHalf].pipeline = makePipeline(halfPass, true, true, DynamicStates::kNone);
    targets[kHalfSmall].pipeline = makePipeline(halfPass, true, true, DynamicStates::kViewportScissor);
    targets[kBloom].pipeline = makePipeline(bloomPass, true, false, DynamicStates::kEmptyBlock);
    targets[kUi].pipeline = makePipeline(uiPass, true, false, DynamicStates::kViewportScissor);
    {
        scene::PipelineDesc pipeline;
        pipeline.vertex = fullVert;
        pipeline.fragment = compFrag;
        pipeline.meshInput = false;
        pipeline.layout = finalLayout;
        pipeline.renderPass = finalPass;
        pipelines.push_back(scene::createPipeline(device, pipeline));
    }
    VkPipeline finalPipeline = pipelines.back();

    // ---- meshes
    scene::MeshBuffers meshes;
    const scene::MeshRange grid = meshes.add(scene::makeGrid(32, 18, 0.6f, 0.6f));  // flat: any part of it matches the prepass depth
    const scene::MeshRange quad = meshes.add(scene::makeQuad(0.3f, 0.8f, 0.6f, 0.9f));
    const scene::MeshRange ring = meshes.add(scene::makeRing(1800, 0.1f));
    meshes.upload(ctx);

    std::printf("zovk-scene-antutu: render area %ux%u (small pass %ux%u), screen %ux%u, passes:", area.width,
                area.height, smallArea.width, smallArea.height, screen.width, screen.height);
    for (const PassStep& s : kSequence) std::printf(" %s", s.label);
    std::printf(" final\n");

    const size_t passCount = sizeof(kSequence) / sizeof(kSequence[0]);
    presenter.timePasses(o.common.gpuTime, uint32_t(passCount) + 1);
    scene::GpuTimer& timer = presenter.timer();
    auto recordFrame = [&](VkCommandBuffer cmd, uint32_t imageIndex, uint32_t frame) {
        meshes.bind(cmd);
        const float t = float(frame % 120) / 120.0f;
        for (size_t step = 0; step < passCount; ++step) {
            const TargetInfo& target = targets[kSequence[step].target];
            VkClearValue clears[2] = {};
            clears[0].color = {{0.02f, 0.02f, 0.05f, 1.0f}};
            clears[1].depthStencil = {1.0f, 0};
            if (kSequence[step].target == kDepthPrepass) clears[0].depthStencil = {1.0f, 0};  // its only attachment
            // Built afresh per pass: what the benchmark passes is not reused.
            VkRenderPassBeginInfo begin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
            begin.renderPass = target.pass;
            begin.framebuffer = target.framebuffer;
            begin.renderArea = {{0, 0}, target.extent};
            begin.clearValueCount = 2;
            begin.pClearValues = clears;
            timer.beginPass(cmd, kSequence[step].label);
            vkCmdBeginRenderPass(cmd, &begin, VK_SUBPASS_CONTENTS_INLINE);
            vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, target.pipeline);
            if (target.dynamicViewport) scene::setViewport(cmd, target.extent);

            const float hue = float(step) * 0.9f;
            scene::DrawConstants c;
            c.tint[0] = 0.7f + 0.3f * std::sin(hue);
            c.tint[1] = 0.7f + 0.3f * std::sin(hue + 2.0f);
            c.tint[2] = 0.7f + 0.3f * std::sin(hue + 4.0f);
            const Target kind = kSequence[step].target;
            if (kind == kDepthPrepass || kind == kHdr || kind == kHalf || kind == kHalfSmall) {
                // A CPU rasteriser spends most of the frame here: the colour passes draw the
                // ground on part of the area only.
                const float cover = kind == kDepthPrepass ? 1.0f : kind == kHdr ? 0.85f : 0.65f;
                c.transform[2] = c.transform[3] = cover;
                vkCmdPushConstants(cmd, passLayout, scene::kDrawConstantStages, 0, sizeof(c), &c);
                vkCmdDrawIndexed(cmd, grid.indexCount, 1, grid.firstIndex, grid.vertexOffset, 0);
            }
            if (kind == kHdr || kind == kBloom || kind == kUi) {
                c.transform[0] = -0.85f + 0.1f * t;
                c.transform[1] = kind == kUi ? 0.75f : -0.6f + 0.1f * float(step % 4);
                c.transform[2] = 0.09f;
                c.transform[3] = kind == kUi ? 0.12f : 0.18f;
                c.step[0] = 0.23f;
                c.step[1] = 0.4f;
                c.step[2] = -0.005f;
                vkCmdPushConstants(cmd, passLayout, scene::kDrawConstantStages, 0, sizeof(c), &c);
                vkCmdDrawIndexed(cmd, quad.indexCount, kind == kUi ? 8 : 24, quad.firstIndex, quad.vertexOffset, 0);
            }
            if (kind == kHalf || kind == kHalfSmall || kind == kBloom) {
                c = scene::DrawConstants();
                c.transform[0] = -0.2f + 0.4f * t;
                c.transform[2] = 0.5f * float(area.height) / float(area.width);
                c.transform[3] = 0.5f;
                vkCmdPushConstants(cmd, passLayout, scene::kDrawConstantStages, 0, sizeof(c), &c);
                vkCmdDrawIndexed(cmd, ring.indexCount, 1, ring.firstIndex, ring.vertexOffset, 0);
            }
            vkCmdEndRenderPass(cmd);
            timer.endPass(cmd);
        }

        timer.beginPass(cmd, "final");
        scene::recordCompositePass(cmd, finalPass, finalFramebuffers[imageIndex], screen, finalPipeline, finalLayout,
                                   compositeSet.set);
        timer.endPass(cmd);
    };

    const double seconds = presenter.run(o.common.frames, recordFrame, o.common.png);
    std::printf("zovk-scene-antutu: %u frames in %.2f s\n", o.common.frames, seconds);

    // ---- teardown: everything, so that nothing is reported as leaked
    VKH_CHECK(vkDeviceWaitIdle(device));
    meshes.destroy(ctx);
    for (VkPipeline p : pipelines) vkDestroyPipeline(device, p, nullptr);
    for (VkShaderModule m : {meshVert, passFrag, fullVert, compFrag}) vkDestroyShaderModule(device, m, nullptr);
    vkDestroyPipelineLayout(device, passLayout, nullptr);
    vkDestroyPipelineLayout(device, finalLayout, nullptr);
    compositeSet.destroy(device);
    vkDestroySampler(device, linear, nullptr);
    for (VkFramebuffer fb : finalFramebuffers) vkDestroyFramebuffer(device, fb, nullptr);
    for (const TargetInfo& target : targets) vkDestroyFramebuffer(device, target.framebuffer, nullptr);
    for (VkRenderPass p : {depthPass, hdrPass, halfPass, bloomPass, uiPass, finalPass}) vkDestroyRenderPass(device, p, nullptr);
    for (vkh::Image* img : {&depth, &smallDepth, &hdr, &half, &halfSmall, &bloom, &ui}) ctx.destroy(*img);
    return 0;
}
