// Cost of the Star Rail VRS module on the calls it sits on. The module is set up through its
// hooks on the recording fake (passes, framebuffers, a present at level 1 in the gated scene);
// then the next layer's functions for the measured calls are swapped for ones that do nothing,
// so the figures are the layer's own CPU time:
//   BM_VrsDrawOutsideLight    vkCmdDrawIndexed outside a light secondary (the module's guard
//                             reads two counters and hands the call on)
//   BM_VrsLightDraw           vkCmdDrawIndexed while a light secondary records (counted under
//                             the module's lock, no rate change)
//   BM_VrsPresentSteady       vkQueuePresentKHR at an unchanged VRS level
//   BM_VrsPresentLevelChange  vkQueuePresentKHR that uploads two templates (level 1 and 2 in
//                             turn): the one-shot command buffers, without the GPU's wait
// The wait for the queue that an upload adds on a real driver is measured by
// present_level_change.sh on lavapipe.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <memory>

#include "tests/support/fake_next_layer.h"
#include "tests/support/served_device.h"
#include "tests/support/star_rail_device.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;

namespace {

// clang-format off
void VKAPI_CALL Draw(VkCommandBuffer, uint32_t, uint32_t, uint32_t, int32_t, uint32_t) {}
VkResult VKAPI_CALL Present(VkQueue, const VkPresentInfoKHR*) { return VK_SUCCESS; }
VkResult VKAPI_CALL Submit(VkQueue, uint32_t, const VkSubmitInfo*, VkFence) { return VK_SUCCESS; }
VkResult VKAPI_CALL WaitIdle(VkQueue) { return VK_SUCCESS; }
VkResult VKAPI_CALL Begin(VkCommandBuffer, const VkCommandBufferBeginInfo*) { return VK_SUCCESS; }
VkResult VKAPI_CALL End(VkCommandBuffer) { return VK_SUCCESS; }
void VKAPI_CALL Free(VkDevice, VkCommandPool, uint32_t, const VkCommandBuffer*) {}
void VKAPI_CALL Barrier(VkCommandBuffer, VkPipelineStageFlags, VkPipelineStageFlags, VkDependencyFlags, uint32_t, const VkMemoryBarrier*, uint32_t, const VkBufferMemoryBarrier*, uint32_t, const VkImageMemoryBarrier*) {}
void VKAPI_CALL Copy(VkCommandBuffer, VkBuffer, VkImage, VkImageLayout, uint32_t, const VkBufferImageCopy*) {}
void VKAPI_CALL SetRate(VkCommandBuffer, const VkExtent2D*, const VkFragmentShadingRateCombinerOpKHR*) {}
zovk_test::FakeObject gOneShot{nullptr};
VkResult VKAPI_CALL Allocate(VkDevice, const VkCommandBufferAllocateInfo*, VkCommandBuffer* c) { *c = reinterpret_cast<VkCommandBuffer>(&gOneShot); return VK_SUCCESS; }
// clang-format on

// A Star Rail device after its first frame: substitutes made, images uploaded, the scene gate
// open at level 1, and a light secondary begun on `secondary`.
struct VrsDevice {
    VrsDevice() {
        static char binderDir[] = "/tmp/zovk-vrs-bench.XXXXXX";
        if (getenv("ZOVK_BINDER_DIR") == nullptr && mkdtemp(binderDir) != nullptr) {
            setenv("ZOVK_BINDER_DIR", binderDir, 1);  // no service there: the monitor gives up at once
        }
        using namespace zovk_test;
        served = std::make_unique<ServedDevice>(fake, ServeStarRailVrs("1920x1080;5;10,12,3000,1;2"));
        constexpr auto kClear = VK_ATTACHMENT_LOAD_OP_CLEAR, kDontCare = VK_ATTACHMENT_LOAD_OP_DONT_CARE;
        const VkRenderPass light = CreatePass(StarRailLightPass(kClear, VK_ATTACHMENT_LOAD_OP_LOAD));
        const VkFramebuffer framebuffer = CreateFramebuffer(CreatePass(StarRailLightPass(kDontCare, kDontCare)), 2);
        const VkRenderPass mainPass = CreatePass(StarRailMainPass(kClear));
        const VkFramebuffer mainFramebuffer = CreateFramebuffer(CreatePass(StarRailMainPass(kDontCare)), 5);
        zovk_test::PushStarRailScene(1);
        present = served->Call<PFN_vkQueuePresentKHR>("vkQueuePresentKHR");
        draw = served->Call<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed");
        present(fake.Queue(), &presentInfo);  // uploads the images, opens the level and scene gates
        // A main pass at the configured resolution: level changes upload its patterns.
        served->BeginPass(Primary(), mainPass, mainFramebuffer, {1920, 1080});
        served->Call<PFN_vkCmdEndRenderPass>("vkCmdEndRenderPass")(Primary());
        served->BeginSecondary(Secondary(), light, framebuffer);
        fake.Clear();

        // From here the next layer does nothing.
        VkDeviceFunctionTable& f = ZoVkContextManager::GetInstance()->GetDeviceInfo(fake.device.dispatch)->functions;
        f.vkCmdDrawIndexed = Draw;
        f.vkQueuePresentKHR = Present;
        f.vkQueueSubmit = Submit;
        f.vkQueueWaitIdle = WaitIdle;
        f.vkBeginCommandBuffer = Begin;
        f.vkEndCommandBuffer = End;
        f.vkFreeCommandBuffers = Free;
        f.vkCmdPipelineBarrier = Barrier;
        f.vkCmdCopyBufferToImage = Copy;
        f.vkCmdSetFragmentShadingRateKHR = SetRate;
        f.vkAllocateCommandBuffers = Allocate;
    }

    VkRenderPass CreatePass(const zovk_test::ServedDevice::Attachments& attachments) {
        VkRenderPass pass = VK_NULL_HANDLE;
        served->CreatePass(attachments, &pass);
        return pass;
    }
    VkFramebuffer CreateFramebuffer(VkRenderPass pass, uint32_t attachments) {
        return served->CreateFramebuffer(pass, attachments, 1920, 1080);
    }
    VkCommandBuffer Secondary() { return reinterpret_cast<VkCommandBuffer>(&secondaryObject); }
    VkCommandBuffer Primary() { return reinterpret_cast<VkCommandBuffer>(&primaryObject); }

    zovk_test::FakeNextLayer fake;
    std::unique_ptr<zovk_test::ServedDevice> served;
    zovk_test::FakeObject secondaryObject{&fake.deviceDispatch};
    zovk_test::FakeObject primaryObject{&fake.deviceDispatch};
    PFN_vkCmdDrawIndexed draw = nullptr;
    PFN_vkQueuePresentKHR present = nullptr;
    VkPresentInfoKHR presentInfo{VK_STRUCTURE_TYPE_PRESENT_INFO_KHR, nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr};
};

VrsDevice* gDevice = nullptr;
void MakeDevice(const benchmark::State&) { gDevice = new VrsDevice(); }
void DropDevice(const benchmark::State&) {
    delete gDevice;
    gDevice = nullptr;
}

void BM_VrsDrawOutsideLight(benchmark::State& state) {
    // The light secondary ends: draws of other command buffers are not counted.
    gDevice->served->Call<PFN_vkEndCommandBuffer>("vkEndCommandBuffer")(gDevice->Secondary());
    const VkCommandBuffer cb = gDevice->Primary();
    for (auto _ : state) {
        gDevice->draw(cb, 36, 1, 0, 0, 0);
    }
}
BENCHMARK(BM_VrsDrawOutsideLight)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

void BM_VrsLightDraw(benchmark::State& state) {
    const VkCommandBuffer cb = gDevice->Secondary();
    for (auto _ : state) {
        gDevice->draw(cb, 36, 1, 0, 0, 0);
    }
}
BENCHMARK(BM_VrsLightDraw)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

void BM_VrsPresentSteady(benchmark::State& state) {
    const VkQueue queue = gDevice->fake.Queue();
    for (auto _ : state) {
        gDevice->present(queue, &gDevice->presentInfo);
    }
}
BENCHMARK(BM_VrsPresentSteady)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

void BM_VrsPresentLevelChange(benchmark::State& state) {
    const VkQueue queue = gDevice->fake.Queue();
    int level = 1;
    for (auto _ : state) {
        level = 3 - level;
        zovk_test::PushStarRailScene(level);
        gDevice->present(queue, &gDevice->presentInfo);
    }
}
BENCHMARK(BM_VrsPresentLevelChange)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
