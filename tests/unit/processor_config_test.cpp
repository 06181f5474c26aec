// The configuration data: which modules a configuration switches on, the creation-path
// switches, and the extension-function lists that switch modules off again.
#include <gtest/gtest.h>

#include <json/reader.h>

#include <string>
#include <vector>

#include "app/zovk_app_data.h"
#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"
#include "settings/zovk_settings.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << text;
    return value;
}

class TestModuleData : public module::ZoVkModuleDataBase {
public:
    explicit TestModuleData(bool ok) { valid = ok; }
};

// Module configuration creators for ids 1 and 2, until the configuration registers the
// application's own.
void RegisterDataCreators() {
    gCreateModuleDataMap[1] = [](const Json::Value&) { return new TestModuleData(true); };
    gCreateModuleDataMap[2] = [](const Json::Value&) { return new TestModuleData(true); };
}

class ProcessorConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        ZoVkSettings::GetInstance()->SetApplicationType(vulkan::ZOVK_APPLICATION_STAR_RAIL);
        RegisterDataCreators();
    }
    ZoVkStarRailData data_;
};

TEST_F(ProcessorConfigTest, NoModuleMaskSwitchesNothingOn) {
    for (const char* config : {R"({})", R"({"xrender_BaseInfo":""})", R"({"xrender_BaseInfo":"0"})",
                               R"({"xrender_BaseInfo":"2147483648"})", R"({"xrender_BaseInfo":"12abc"})",
                               R"({"xrender_BaseInfo":"-2"})", R"({"xrender_BaseInfo":"99999999999999999999999"})"}) {
        ZoVkStarRailData data;
        EXPECT_FALSE(data.InitProcessorConfigData(Parse(config))) << config;
        EXPECT_FALSE(data.HasAnyModuleId()) << config;
    }
    EXPECT_FALSE(ZoVkSettings::GetInstance()->HasHookFlags(kHookModulesConfigured));
}

TEST_F(ProcessorConfigTest, MaskBitsBecomeModuleIdsAndSetTheModulesFlag) {
    ASSERT_TRUE(data_.InitProcessorConfigData(Parse(R"({"xrender_BaseInfo":"3"})")));
    EXPECT_EQ(data_.moduleIds, (std::vector<unsigned int>{1, 2}));
    EXPECT_EQ(data_.moduleMask, 3u);
    EXPECT_NE(data_.GetProcessorModuleData(1), nullptr);
    EXPECT_NE(data_.GetProcessorModuleData(2), nullptr);
    EXPECT_TRUE(ZoVkSettings::GetInstance()->HasHookFlags(kHookModulesConfigured));
    // Module 2's needs are collected; module 1 needs nothing.
    EXPECT_EQ(data_.deviceExtensionFunctions.at("vkCreateRenderPass2KHR"), (std::vector<unsigned int>{2}));
    EXPECT_EQ(data_.instanceExtensionFunctions.at("vkGetPhysicalDeviceProperties2KHR"),
              (std::vector<unsigned int>{2}));
}

TEST_F(ProcessorConfigTest, ModuleWithoutUsableConfigurationIsErasedEverywhere) {
    // Module 2's own configuration rejects the resolution item.
    ASSERT_TRUE(data_.InitProcessorConfigData(Parse(R"({"xrender_BaseInfo":"3","vrs_Params":"1920*1080"})")));
    EXPECT_EQ(data_.moduleIds, (std::vector<unsigned int>{1}));
    EXPECT_EQ(data_.GetProcessorModuleData(2), nullptr);
    EXPECT_TRUE(data_.deviceExtensionFunctions.empty());
    EXPECT_TRUE(data_.instanceExtensionFunctions.empty());
}

TEST_F(ProcessorConfigTest, ModuleWithoutCreatorIsErasedAndLeavesNothingOn) {
    ASSERT_FALSE(data_.InitProcessorConfigData(Parse(R"({"xrender_BaseInfo":"8"})")));
    EXPECT_FALSE(data_.HasAnyModuleId());
}

TEST_F(ProcessorConfigTest, CheckMainInfoShapes) {
    struct Case {
        const char* value;
        bool check;
        bool lock;
        const char* pattern;
    };
    // Starting from check on, lock on, pattern "old".
    const Case cases[] = {
        {"1;0;RenderThread", true, false, "RenderThread"},
        {"0;1;Unity.*", false, true, "Unity.*"},
        {"1;1", false, true, "old"},            // two pieces: check off, the rest kept
        {"x;1;RenderThread", false, true, "old"},  // not a number
        {";;", true, true, "old"},              // no piece at all: nothing changes
        {"", true, true, "old"},
    };
    for (const Case& c : cases) {
        ZoVkStarRailData data;
        data.checkRenderThread = true;
        data.useLock = true;
        data.renderThreadPattern = "old";
        Json::Value config = Parse(R"({"xrender_BaseInfo":"1"})");
        config["xrender_CheckMainInfo"] = c.value;
        ASSERT_TRUE(data.InitProcessorConfigData(config)) << c.value;
        EXPECT_EQ(data.checkRenderThread, c.check) << c.value;
        EXPECT_EQ(data.useLock, c.lock) << c.value;
        EXPECT_EQ(data.renderThreadPattern, c.pattern) << c.value;
    }
}

// Two modules that share one needed function.
class SharedNeedsData : public ZoVkAppDataBase {
public:
    SharedNeedsData() : ZoVkAppDataBase(kInstance, kDevice) {}
    static inline const ZoVkModuleFunctionTable kInstance = {{0, {}}};
    static inline const ZoVkModuleFunctionTable kDevice = {
        {1, {"vkQueuePresentKHR", "vkCmdSetFragmentShadingRateKHR"}},
        {2, {"vkQueuePresentKHR"}},
        {0, {}},
    };
};

TEST(ProcessorDataTest, ErasingAModuleKeepsFunctionsOthersStillNeed) {
    SharedNeedsData data;
    data.moduleIds = {1, 2};
    data.ColloctModuleExtensionFunctions();
    ASSERT_EQ(data.deviceExtensionFunctions.at("vkQueuePresentKHR"), (std::vector<unsigned int>{1, 2}));
    // A table that holds only its placeholder contributes nothing.
    EXPECT_TRUE(data.instanceExtensionFunctions.empty());

    data.EraseModuleId(1);
    EXPECT_EQ(data.deviceExtensionFunctions.at("vkQueuePresentKHR"), (std::vector<unsigned int>{2}));
    EXPECT_EQ(data.deviceExtensionFunctions.count("vkCmdSetFragmentShadingRateKHR"), 0u);
    data.EraseModuleId(2);
    EXPECT_TRUE(data.deviceExtensionFunctions.empty());
    EXPECT_FALSE(data.HasAnyModuleId());
    data.EraseModuleId(2);  // not there any more: nothing happens
}

TEST(ProcessorDataTest, CheckAndFillPassesEraseTheModulesOfMissingFunctions) {
    SharedNeedsData data;
    data.moduleIds = {1, 2};
    data.ColloctModuleExtensionFunctions();
    // Check: erase modules whose function is missing.
    data.CheckDeviceExtensionFunctions([](const std::string& name) { return name == "vkCmdSetFragmentShadingRateKHR"; });
    EXPECT_EQ(data.moduleIds, (std::vector<unsigned int>{2}));
    // Fill: erase modules whose function could not be filled.
    data.InitDeviceExtensionFunctions([](const std::string&) { return false; });
    EXPECT_FALSE(data.HasAnyModuleId());
}

TEST(ProcessorDataTest, RemovingAFunctionNeedsTheSwitch) {
    ZoVkProcessorDataBase plain;
    EXPECT_FALSE(plain.RemoveDeviceExtensionFunction("vkQueuePresentKHR"));

    SharedNeedsData data;
    data.moduleIds = {1, 2};
    data.ColloctModuleExtensionFunctions();
    EXPECT_TRUE(data.RemoveDeviceExtensionFunction("vkNotAFunction"));
    EXPECT_EQ(data.moduleIds.size(), 2u);
    EXPECT_TRUE(data.RemoveDeviceExtensionFunction("vkQueuePresentKHR"));
    EXPECT_FALSE(data.HasAnyModuleId());
}

}  // namespace
