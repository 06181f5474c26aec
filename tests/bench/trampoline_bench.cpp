// Cost of a hooked vkCmdDrawIndexed on a Star Rail device: the next layer's function
// called directly, through the trampoline with only the tail, and through one module
// node that passes the call on; with and without the registry lock.
//
//   trampoline_bench                      Google Benchmark: ns per call
//   trampoline_bench --loop VARIANT N     N calls of one variant, for instruction counts
//                                         (see callgrind_trampoline.sh)
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "app/module/zovk_star_rail_processor.h"
#include "app/zovk_hook_lists.h"
#include "app/zovk_app_data.h"
#include "app/zovk_module_base.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using T = VkDeviceFunctionTable;

namespace {

uint64_t gDraws = 0;

__attribute__((noinline)) void VKAPI_CALL NextCmdDrawIndexed(VkCommandBuffer, uint32_t indexCount, uint32_t,
                                                             uint32_t, int32_t, uint32_t) {
    gDraws += indexCount;
}

PFN_vkVoidFunction VKAPI_CALL NextGetDeviceProcAddr(VkDevice, const char* name) {
    return std::strcmp(name, "vkCmdDrawIndexed") == 0 ? reinterpret_cast<PFN_vkVoidFunction>(NextCmdDrawIndexed)
                                                      : nullptr;
}

// A module whose node does nothing but pass the call on.
#define PASS_ON_HOOKS(X) X(Pre, CmdDrawIndexed, 0)
class PassOnModule : public module::ZoVkModuleBase {
public:
    explicit PassOnModule(ZoVkStarRailProcessor* processor) : ZoVkModuleBase(processor), processor_(processor) {}
    unsigned int GetModuleId() const override { return 2; }

private:
    ZoVkStarRailProcessor* processor_;

    ZOVK_MODULE_HOOKS(PassOnModule, ZoVkStarRailProcessor, PASS_ON_HOOKS)
};

module::ZoVkPassed<void> PassOnModule::PreVkCmdDrawIndexed(VkCommandBuffer cb, uint32_t a, uint32_t b, uint32_t c,
                                                           int32_t d, uint32_t e,
                                                           module::ZoVkNext<&T::vkCmdDrawIndexed> next) {
    return next(cb, a, b, c, d, e);
}

struct Handle {
    void* dispatch;
};

// One Star Rail device per variant, each with its own dispatch key.
struct Device {
    Device(bool withModule, bool useLock) {
        ZoVkSettings* settings = ZoVkSettings::GetInstance();
        settings->SetApplicationType(vulkan::ZOVK_APPLICATION_STAR_RAIL);
        ZoVkProcessorDataBase* data = settings->GetProcessorData();
        if (!data->HasModuleId(2)) {
            auto* starRail = new ZoVkStarRailData();
            starRail->moduleIds = {2};
            settings->SetProcessorData(starRail);
            data = starRail;
        }
        data->useLock = useLock;
        settings->SetHookFlags(kHookAll);
        processor = std::make_shared<ZoVkStarRailProcessor>();
        if (withModule) {
            processor->RegisterModule(new PassOnModule(processor.get()));
        }
        processor->SetDeviceHookFunction("vkCmdDrawIndexed",
                                         GlobalDeviceHookFunctor<ZoVkStarRailProcessor, &T::vkCmdDrawIndexed,
                                                                 &ZoVkStarRailProcessor::VkCmdDrawIndexedHooked>::Address());
        ZoVkContextManager::GetInstance()->InitDeviceInfo(reinterpret_cast<VkPhysicalDevice>(&physical),
                                                          reinterpret_cast<VkDevice>(&device), NextGetDeviceProcAddr,
                                                          VK_API_VERSION_1_2, processor, true);
        trampoline = processor->GetDeviceHookFunction("vkCmdDrawIndexed");
    }
    ~Device() {
        ZoVkDestroyDevice(reinterpret_cast<VkDevice>(&device), nullptr);
        processor->OnEnd();
    }
    VkCommandBuffer CommandBuffer() { return reinterpret_cast<VkCommandBuffer>(&commandBuffer); }
    PFN_vkCmdDrawIndexed Draw() const { return reinterpret_cast<PFN_vkCmdDrawIndexed>(trampoline); }

    int instanceKey = 0;
    int deviceKey = 0;
    Handle physical{&instanceKey};
    Handle device{&deviceKey};
    Handle commandBuffer{&deviceKey};
    std::shared_ptr<ZoVkStarRailProcessor> processor;
    ZoVkHookFunction trampoline = nullptr;
};

enum Variant { kDirect, kTail, kNode };

void SetLock(bool useLock) {
    ZoVkSettings::GetInstance()->GetProcessorData()->useLock = useLock;
}

// Made before the benchmark's threads start, gone after they end.
Device* gDevice = nullptr;

void MakeDevice(const benchmark::State& state) {
    const bool useLock = state.range(1) != 0;
    gDevice = new Device(state.range(0) == kNode, useLock);
    SetLock(useLock);
}

void DropDevice(const benchmark::State&) {
    delete gDevice;
    gDevice = nullptr;
}

void BM_CmdDrawIndexed(benchmark::State& state) {
    const PFN_vkCmdDrawIndexed call = state.range(0) == kDirect ? NextCmdDrawIndexed : gDevice->Draw();
    const VkCommandBuffer cb = gDevice->CommandBuffer();
    for (auto _ : state) {
        call(cb, 3, 1, 0, 0, 0);
    }
}

void Variants(benchmark::internal::Benchmark* b) {
    b->ArgNames({"variant", "lock"});
    for (const int variant : {kDirect, kTail, kNode}) {
        for (const int lock : {0, 1}) {
            b->Args({variant, lock});
        }
    }
}

BENCHMARK(BM_CmdDrawIndexed)
    ->Apply(Variants)
    ->Setup(MakeDevice)
    ->Teardown(DropDevice)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime();

// Loops for the instruction counts: one function per variant, so that callgrind can
// collect exactly one of them.
__attribute__((noinline)) void LoopDirect(VkCommandBuffer cb, long n) {
    for (long i = 0; i < n; ++i) NextCmdDrawIndexed(cb, 3, 1, 0, 0, 0);
}
__attribute__((noinline)) void LoopTrampoline(PFN_vkCmdDrawIndexed call, VkCommandBuffer cb, long n) {
    for (long i = 0; i < n; ++i) call(cb, 3, 1, 0, 0, 0);
}

int RunLoop(const std::string& variant, long n) {
    const bool useLock = variant.find("lock") != std::string::npos;
    Device device(variant.rfind("node", 0) == 0, useLock);
    SetLock(useLock);
    if (variant == "direct") {
        LoopDirect(device.CommandBuffer(), n);
    } else {
        LoopTrampoline(device.Draw(), device.CommandBuffer(), n);
    }
    return gDraws == static_cast<uint64_t>(3 * n) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--loop") == 0) {
        return RunLoop(argv[2], std::atol(argv[3]));
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
