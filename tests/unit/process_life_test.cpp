// The layer over a game's whole life: served objects still alive when the game calls exit(), and
// threads that create pipelines at once. Also run under ThreadSanitizer.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>

#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"
#include "app/zovk_processor_base.h"
#include "app/zovk_processor_data_base.h"
#include "layer/zovk_entry.h"
#include "layer/zovk_records.h"
#include "settings/zovk_scene_recognizer.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/test_processor.h"
#include "tests/unit/binder/binder_test_support.h"

namespace zovk_test {
namespace {

using vulkan::zovk::ZoVkSettings;
using vulkan::zovk::app::ZoVkProcessorBase;

void Say(int fd, const std::string& text) {
    (void)!write(fd, text.data(), text.size());
}

// A module as the real ones are when the game exits with it alive: its end reads the settings
// and gives what it made back to the next layer. It says so on `fd`.
class EndingModule : public vulkan::zovk::app::module::ZoVkModuleBase {
public:
    EndingModule(ZoVkProcessorBase* processor, int fd) : ZoVkModuleBase(processor), processor_(processor), fd_(fd) {}
    unsigned int GetModuleId() const override { return 1; }
    void OnEnd() override {
        ZoVkSettings* settings = ZoVkSettings::GetInstance();
        Say(fd_, "ended: " + settings->GetLayerName() + " with " +
                     std::to_string(settings->GetProcessorData()->moduleIds.size()) + " module\n");
        const vulkan::zovk::ZoVkDeviceInfo* device = processor_->GetDeviceInfo();
        device->functions.vkDestroyRenderPass(device->device, VkRenderPass(0x1234), nullptr);
    }

private:
    ZoVkProcessorBase* processor_;
    int fd_;
};

// The child: a served instance and device through the exports, then the game's exit().
[[noreturn]] void ServeAndExit(int fd) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    auto* data = new vulkan::zovk::app::ZoVkProcessorDataBase;
    data->moduleIds = {1};
    settings->SetProcessorData(data);
    settings->SetHookFlags(vulkan::zovk::kHookModulesConfigured);
    vulkan::zovk::app::gCreateProcessorFunc = [fd] {
        auto processor = std::make_shared<TestProcessor>();
        processor->RegisterModule(new EndingModule(processor.get(), fd));
        return std::shared_ptr<ZoVkProcessorBase>(processor);
    };
    auto* fake = new FakeNextLayer;  // the driver stays loaded through exit
    InstanceCreate instanceCreate(VK_API_VERSION_1_0, {"VK_KHR_surface"});
    DeviceCreate deviceCreate;
    VkInstance instance = VK_NULL_HANDLE;
    VkDevice device = VK_NULL_HANDLE;
    if (ZoVkCreateInstance(&instanceCreate.info, nullptr, &instance) == VK_SUCCESS &&
        ZoVkCreateDevice(fake->PhysicalDevice(), &deviceCreate.info, nullptr, &device) == VK_SUCCESS &&
        TestProcessorStats::gotDeviceInfo == 1) {
        Say(fd, "served\n");
    }
    std::exit(0);
}

// Nothing of the layer is torn down by exit(): its singletons are never destroyed, so no
// module ends on settings already gone, and nothing calls the next layer from exit(). Under
// AddressSanitizer the old order was a use after free.
TEST(ProcessExit, LeavesServedObjectsAndTheirModulesAlone) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        ServeAndExit(report[1]);
    }
    close(report[1]);
    std::string heard;
    char buffer[256];
    for (ssize_t n; (n = read(report[0], buffer, sizeof(buffer))) > 0;) {
        heard.append(buffer, static_cast<size_t>(n));
    }
    close(report[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(heard, "served\n");
}

// Engines create pipelines on several threads; the Vulkan mode is still reported once.
TEST(SceneReport, ThreadsCreatingPipelinesAtOnceReportTheVulkanModeOnce) {
    BinderDir dir;  // no service: each report logs its line and gives up
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    constexpr int kRounds = 20;
    testing::internal::CaptureStderr();
    for (int round = 0; round < kRounds; ++round) {
        StarRailSceneRecognizer recognizer;
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                while (!go.load()) {
                }
                recognizer.notifyVkMode();
            });
        }
        go = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    const std::string log = testing::internal::GetCapturedStderr();
    int reports = 0;
    for (size_t at = 0; (at = log.find("sendSceneIdToPavune, sceneId: 10005", at)) != std::string::npos; ++at) {
        ++reports;
    }
    EXPECT_EQ(reports, kRounds) << log;
}

}  // namespace
}  // namespace zovk_test
