// Cost of the Star Rail VRS module on the calls it sits on, over a next layer that does
// nothing (so the figures are the layer's own CPU time):
//   BM_VrsLightDraw           vkCmdDrawIndexed through the module's node while a light
//                             secondary records (counted, no rate change)
//   BM_VrsPresentSteady       vkQueuePresentKHR at an unchanged VRS level
//   BM_VrsPresentLevelChange  vkQueuePresentKHR that uploads two templates (level 1 and 2 in
//                             turn): the one-shot command buffers, without the GPU's wait
// The wait for the queue that an upload adds on a real driver is measured by
// present_level_change.sh on lavapipe.
#include <benchmark/benchmark.h>

#include <json/value.h>
#include <stdlib.h>

#include <cstring>
#include <memory>
#include <string>

#include "app/module/zovk_star_rail_vrs_module.h"
#include "app/zovk_app_data.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_settings.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using module::ZoVkStarRailVRSModule;
using T = VkDeviceFunctionTable;

namespace {

struct Handle {
    void* dispatch;
};
Handle gPooled{nullptr};
uint64_t gCalls = 0;

// clang-format off
void VKAPI_CALL Draw(VkCommandBuffer, uint32_t, uint32_t, uint32_t, int32_t, uint32_t) { ++gCalls; }
VkResult VKAPI_CALL Present(VkQueue, const VkPresentInfoKHR*) { ++gCalls; return VK_SUCCESS; }
void VKAPI_CALL SetRate(VkCommandBuffer, const VkExtent2D*, const VkFragmentShadingRateCombinerOpKHR*) {}
VkResult VKAPI_CALL CreatePool(VkDevice, const VkCommandPoolCreateInfo*, const VkAllocationCallbacks*, VkCommandPool* p) { *p = reinterpret_cast<VkCommandPool>(uintptr_t{1}); return VK_SUCCESS; }
void VKAPI_CALL DestroyPool(VkDevice, VkCommandPool, const VkAllocationCallbacks*) {}
VkResult VKAPI_CALL Allocate(VkDevice, const VkCommandBufferAllocateInfo*, VkCommandBuffer* c) { *c = reinterpret_cast<VkCommandBuffer>(&gPooled); return VK_SUCCESS; }
void VKAPI_CALL Free(VkDevice, VkCommandPool, uint32_t, const VkCommandBuffer*) {}
VkResult VKAPI_CALL Begin(VkCommandBuffer, const VkCommandBufferBeginInfo*) { return VK_SUCCESS; }
VkResult VKAPI_CALL End(VkCommandBuffer) { return VK_SUCCESS; }
void VKAPI_CALL Copy(VkCommandBuffer, VkBuffer, VkImage, VkImageLayout, uint32_t, const VkBufferImageCopy*) { ++gCalls; }
void VKAPI_CALL GetQueue(VkDevice, uint32_t, uint32_t, VkQueue* q) { *q = reinterpret_cast<VkQueue>(&gPooled); }
VkResult VKAPI_CALL Submit(VkQueue, uint32_t, const VkSubmitInfo*, VkFence) { return VK_SUCCESS; }
VkResult VKAPI_CALL WaitIdle(VkQueue) { return VK_SUCCESS; }
VkResult VKAPI_CALL SetLoaderData(VkDevice, void*) { return VK_SUCCESS; }
void VKAPI_CALL Families(VkPhysicalDevice, uint32_t* n, VkQueueFamilyProperties* p) {
    if (p != nullptr) p[0] = {VK_QUEUE_GRAPHICS_BIT, 1, 0, {1, 1, 1}};
    *n = 1;
}
// clang-format on

PFN_vkVoidFunction VKAPI_CALL NextGetDeviceProcAddr(VkDevice, const char* name) {
    static const std::pair<const char*, PFN_vkVoidFunction> kFunctions[] = {
        {"vkCmdDrawIndexed", reinterpret_cast<PFN_vkVoidFunction>(Draw)},
        {"vkQueuePresentKHR", reinterpret_cast<PFN_vkVoidFunction>(Present)},
        {"vkCmdSetFragmentShadingRateKHR", reinterpret_cast<PFN_vkVoidFunction>(SetRate)},
        {"vkCreateCommandPool", reinterpret_cast<PFN_vkVoidFunction>(CreatePool)},
        {"vkDestroyCommandPool", reinterpret_cast<PFN_vkVoidFunction>(DestroyPool)},
        {"vkAllocateCommandBuffers", reinterpret_cast<PFN_vkVoidFunction>(Allocate)},
        {"vkFreeCommandBuffers", reinterpret_cast<PFN_vkVoidFunction>(Free)},
        {"vkBeginCommandBuffer", reinterpret_cast<PFN_vkVoidFunction>(Begin)},
        {"vkEndCommandBuffer", reinterpret_cast<PFN_vkVoidFunction>(End)},
        {"vkCmdCopyBufferToImage", reinterpret_cast<PFN_vkVoidFunction>(Copy)},
        {"vkGetDeviceQueue", reinterpret_cast<PFN_vkVoidFunction>(GetQueue)},
        {"vkQueueSubmit", reinterpret_cast<PFN_vkVoidFunction>(Submit)},
        {"vkQueueWaitIdle", reinterpret_cast<PFN_vkVoidFunction>(WaitIdle)},
    };
    for (const auto& [n, f] : kFunctions) {
        if (std::strcmp(n, name) == 0) return f;
    }
    return nullptr;
}

const char kPackage[] = "com.miHoYo.hkrpg";

// A Star Rail device whose VRS module is set up as after the first frames: images and
// templates made (fake handles), the scene gate open at level 1, a light secondary recording.
struct VrsDevice {
    VrsDevice() {
        static char binderDir[] = "/tmp/zovk-vrs-bench.XXXXXX";
        if (getenv("ZOVK_BINDER_DIR") == nullptr && mkdtemp(binderDir) != nullptr) {
            setenv("ZOVK_BINDER_DIR", binderDir, 1);  // no service there: the monitor gives up at once
        }
        ZoVkSettings* settings = ZoVkSettings::GetInstance();
        settings->IdentifyApplication(kPackage);
        auto* data = new ZoVkStarRailData();
        data->moduleIds = {ZoVkStarRailVRSModule::PROCESSOR_MODULE_TYPE};
        Json::Value config;
        config["vrs_Params"] = "1920x1080;5;10,12,3000,1;2";
        data->moduleData[ZoVkStarRailVRSModule::PROCESSOR_MODULE_TYPE] = new module::ZoVkStarRailVRSModuleData(config);
        settings->SetProcessorData(data);
        settings->SetHookFlags(kHookAll);
        auto* monitor = android::ZoVkAppInfoMonitor::GetInstance();
        monitor->Start();
        monitor->ParseGameSceneId(kPackage, 1058);
        monitor->ParseVkVrsSwitch(kPackage, 1);

        processor = std::make_shared<ZoVkStarRailProcessor>();
        vrs = new ZoVkStarRailVRSModule(processor.get());
        processor->RegisterModule(vrs);
        instance.functions.vkGetPhysicalDeviceQueueFamilyProperties = Families;
        processor->SetInstanceInfo(&instance);
        ZoVkContextManager::GetInstance()->InitDeviceInfo(reinterpret_cast<VkPhysicalDevice>(&physical),
                                                          reinterpret_cast<VkDevice>(&device), NextGetDeviceProcAddr,
                                                          VK_API_VERSION_1_2, processor, true, SetLoaderData);

        vrs->mainPass.images.resize(1);
        vrs->lightPass.images.resize(1);
        for (auto* image : {&vrs->mainPass.images[0], &vrs->lightPass.images[0]}) {
            image->image = reinterpret_cast<VkImage>(uintptr_t{0x10});
            image->width = 120;
            image->height = 67;
        }
        vrs->templateBuffers.assign(1, {});
        vrs->templateBuffers[0].resize(4);
        vrs->vrsFlags = ZoVkStarRailVRSModule::kTexelSizeKnown | ZoVkStarRailVRSModule::kImagesReady;
        vrs->curMainResIndex_ = 0;
        vrs->appliedResIndex = 0;
        vrs->templevel_ = 1;
        draw = reinterpret_cast<PFN_vkCmdDrawIndexed>(processor->GetDeviceHookFunction("vkCmdDrawIndexed"));
        present = reinterpret_cast<PFN_vkQueuePresentKHR>(processor->GetDeviceHookFunction("vkQueuePresentKHR"));
        present(Queue(), &presentInfo);  // opens the level and scene gates
        vrs->lightSecondaryRecording = true;
        vrs->coarseRateActive = true;
    }
    ~VrsDevice() {
        // The module holds fake handles: forget them before the device goes.
        vrs->mainPass.images.clear();
        vrs->lightPass.images.clear();
        vrs->templateBuffers.clear();
        ZoVkDestroyDevice(reinterpret_cast<VkDevice>(&device), nullptr);
        processor->OnEnd();
    }
    VkCommandBuffer CommandBuffer() { return reinterpret_cast<VkCommandBuffer>(&commandBuffer); }
    VkQueue Queue() { return reinterpret_cast<VkQueue>(&queue); }

    int instanceKey = 0;
    int deviceKey = 0;
    Handle physical{&instanceKey};
    Handle device{&deviceKey};
    Handle commandBuffer{&deviceKey};
    Handle queue{&deviceKey};
    ZoVkInstanceInfo instance;
    std::shared_ptr<ZoVkStarRailProcessor> processor;
    ZoVkStarRailVRSModule* vrs = nullptr;
    PFN_vkCmdDrawIndexed draw = nullptr;
    PFN_vkQueuePresentKHR present = nullptr;
    VkPresentInfoKHR presentInfo{};
};

VrsDevice* gDevice = nullptr;
void MakeDevice(const benchmark::State&) { gDevice = new VrsDevice(); }
void DropDevice(const benchmark::State&) {
    delete gDevice;
    gDevice = nullptr;
}

void BM_VrsLightDraw(benchmark::State& state) {
    const VkCommandBuffer cb = gDevice->CommandBuffer();
    for (auto _ : state) {
        gDevice->draw(cb, 36, 1, 0, 0, 0);
    }
    state.counters["drawsCounted"] = static_cast<double>(gDevice->vrs->lightDrawCounter);
}
BENCHMARK(BM_VrsLightDraw)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

void BM_VrsPresentSteady(benchmark::State& state) {
    const VkQueue queue = gDevice->Queue();
    for (auto _ : state) {
        gDevice->present(queue, &gDevice->presentInfo);
    }
}
BENCHMARK(BM_VrsPresentSteady)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

void BM_VrsPresentLevelChange(benchmark::State& state) {
    const VkQueue queue = gDevice->Queue();
    auto* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    int level = 1;
    for (auto _ : state) {
        level = 3 - level;
        monitor->ParseVkVrsSwitch(kPackage, level);
        gDevice->present(queue, &gDevice->presentInfo);
    }
}
BENCHMARK(BM_VrsPresentLevelChange)->Setup(MakeDevice)->Teardown(DropDevice)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
