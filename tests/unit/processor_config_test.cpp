// The configuration data: which modules a configuration switches on, the creation-path
// switches, and the extension-function lists shared by modules.
#include <gtest/gtest.h>

#include <json/reader.h>

#include <string>
#include <vector>

#include "app/zovk_app_data.h"
#include "settings/zovk_settings.h"
#include "tests/unit/binder/binder_test_support.h"

namespace zovk_test {
namespace {

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using Ids = std::vector<unsigned int>;

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << text;
    return value;
}

TEST(ProcessorConfig, TheMaskAndTheThreadSwitchesOfEveryShape) {
    BinderDir dir;  // an accepted configuration starts the monitor, which finds no service here
    struct Case {
        const char* config;
        Ids modules;  // none: the configuration is refused
        bool check;   // from check on, lock on, pattern "old"
        bool lock;
        const char* pattern;
    };
    const Case cases[] = {
        {R"({})", {}, true, true, "old"},
        {R"({"xrender_BaseInfo":""})", {}, true, true, "old"},
        {R"({"xrender_BaseInfo":"0"})", {}, true, true, "old"},
        {R"({"xrender_BaseInfo":"2147483648"})", {}, true, true, "old"},  // bit 31 is no module
        {R"({"xrender_BaseInfo":"12abc"})", {}, true, true, "old"},
        {R"({"xrender_BaseInfo":"-2"})", {}, true, true, "old"},
        {R"({"xrender_BaseInfo":"99999999999999999999999"})", {}, true, true, "old"},
        {R"({"xrender_BaseInfo":"8"})", {}, true, true, "old"},  // no creator for module 8
        {R"({"xrender_BaseInfo":"3"})", {1, 2}, true, true, "old"},
        {R"({"xrender_BaseInfo":"3","vrs_Params":"1920*1080"})", {1}, true, true, "old"},  // module 2 refuses
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":"1;0;RenderThread"})", {1}, true, false, "RenderThread"},
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":";0;;1;Unity.*;"})", {1}, false, true, "Unity.*"},
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":"00;99999999999999999999999;R"})", {1}, false, true, "R"},
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":"1;1"})", {1}, false, true, "old"},
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":"x;1;RenderThread"})", {1}, false, true, "old"},
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":";;"})", {1}, true, true, "old"},
        {R"({"xrender_BaseInfo":"1","xrender_CheckMainInfo":""})", {1}, true, true, "old"},
    };
    ZoVkSettings::GetInstance()->SetApplicationType(vulkan::ZOVK_APPLICATION_STAR_RAIL);
    for (const Case& c : cases) {
        ZoVkStarRailData data;
        data.checkRenderThread = true;
        data.useLock = true;
        data.SetRenderThreadPattern("old");
        EXPECT_EQ(data.InitProcessorConfigData(Parse(c.config)), !c.modules.empty()) << c.config;
        EXPECT_EQ(data.moduleIds, c.modules) << c.config;
        for (const unsigned int id : c.modules) {
            EXPECT_NE(data.GetProcessorModuleData(id), nullptr) << c.config;
        }
        EXPECT_EQ(data.checkRenderThread, c.check) << c.config;
        EXPECT_EQ(data.useLock, c.lock) << c.config;
        EXPECT_EQ(data.RenderThreadPattern(), c.pattern) << c.config;
        // Module 2 needs functions; nothing else does, and an erased module needs nothing.
        EXPECT_EQ(data.deviceExtensionFunctions.count("vkCreateRenderPass2KHR"), data.HasModuleId(2) ? 1u : 0u);
        EXPECT_EQ(data.instanceExtensionFunctions.empty(), !data.HasModuleId(2)) << c.config;
        if (c.modules.empty()) {
            EXPECT_FALSE(ZoVkSettings::GetInstance()->HasHookFlags(kHookModulesConfigured)) << c.config;
        }
    }
    EXPECT_TRUE(ZoVkSettings::GetInstance()->HasHookFlags(kHookModulesConfigured));
}

// Two modules that share one needed function.
class SharedNeedsData : public ZoVkAppDataBase {
public:
    SharedNeedsData() : ZoVkAppDataBase(kInstance, kDevice) {
        moduleIds = {1, 2};
        ColloctModuleExtensionFunctions();
    }
    static inline const ZoVkModuleFunctionTable kInstance = {{0, {}}};
    static inline const ZoVkModuleFunctionTable kDevice = {
        {1, {"vkQueuePresentKHR", "vkCmdSetFragmentShadingRateKHR"}},
        {2, {"vkQueuePresentKHR"}},
        {0, {}},
    };
};

TEST(ProcessorData, ErasingAModuleKeepsFunctionsOthersStillNeed) {
    SharedNeedsData data;
    ASSERT_EQ(data.deviceExtensionFunctions.at("vkQueuePresentKHR"), (Ids{1, 2}));
    EXPECT_TRUE(data.instanceExtensionFunctions.empty()) << "a table of only its placeholder adds nothing";
    data.EraseModuleId(1);
    EXPECT_EQ(data.deviceExtensionFunctions.at("vkQueuePresentKHR"), Ids{2});
    EXPECT_EQ(data.deviceExtensionFunctions.count("vkCmdSetFragmentShadingRateKHR"), 0u);
    data.EraseModuleId(2);
    EXPECT_TRUE(data.deviceExtensionFunctions.empty());
    EXPECT_FALSE(data.HasAnyModuleId());
    data.EraseModuleId(2);  // not there any more: nothing happens
}

}  // namespace
}  // namespace zovk_test
