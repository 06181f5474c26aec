// Which processor, configuration class and modules an application type gets.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/module/zovk_star_rail_processor.h"
#include "app/zovk_app_data.h"
#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"
#include "settings/zovk_settings.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;

namespace {

std::vector<std::string> gLog;

class LoggedModule : public module::ZoVkModuleBase {
public:
    LoggedModule(ZoVkProcessorBase* processor, unsigned int id, bool validAfterBegin)
        : ZoVkModuleBase(processor), id_(id), validAfterBegin_(validAfterBegin) {}
    ~LoggedModule() override { gLog.push_back("delete " + std::to_string(id_)); }
    unsigned int GetModuleId() const override { return id_; }
    void OnBegin() override { valid = validAfterBegin_; }
    void OnEnd() override { gLog.push_back("end " + std::to_string(id_)); }
    void UnregisterModuleInstanceFunctors() override { gLog.push_back("unhook " + std::to_string(id_)); }

private:
    unsigned int id_;
    bool validAfterBegin_;
};

void SetApplication(vulkan::ZoVkApplicationType type) {
    ZoVkSettings::GetInstance()->SetApplicationType(type);
}

TEST(FactoryTest, ConfigurationDataByApplicationType) {
    SetApplication(vulkan::ZOVK_APPLICATION_NONE);
    EXPECT_EQ(CreateProcessorData(), nullptr);

    SetApplication(vulkan::ZOVK_APPLICATION_ANTUTU);
    ZoVkProcessorDataBase* antutu = CreateProcessorData();
    EXPECT_NE(dynamic_cast<ZoVkAntutuData*>(antutu), nullptr);
    EXPECT_TRUE(antutu->removeExtensionFunctions);
    ReleaseProcessorData(antutu);

    SetApplication(vulkan::ZOVK_APPLICATION_STAR_RAIL);
    ZoVkProcessorDataBase* starRail = CreateProcessorData();
    EXPECT_NE(dynamic_cast<ZoVkStarRailData*>(starRail), nullptr);
    ReleaseProcessorData(starRail);

    SetApplication(static_cast<vulkan::ZoVkApplicationType>(7));
    ZoVkProcessorDataBase* other = CreateProcessorData();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(typeid(*other), typeid(ZoVkProcessorDataBase));
    EXPECT_TRUE(other->removeExtensionFunctions);
    ReleaseProcessorData(other);
    EXPECT_FALSE(IsSharedProcessor());
}

TEST(FactoryTest, NoApplicationLeavesTheRegistriesAlone) {
    SetApplication(vulkan::ZOVK_APPLICATION_NONE);
    InitProcessorCreateInfo();
    EXPECT_FALSE(gCreateProcessorFunc);
    EXPECT_EQ(gModuleCreateInfoFunc, nullptr);
    EXPECT_EQ(CreateVkProcessor(), nullptr);  // no creator: no processor, and no throw
}

TEST(FactoryTest, OtherApplicationTypesGetAnEmptyProcessor) {
    SetApplication(static_cast<vulkan::ZoVkApplicationType>(7));
    InitProcessorCreateInfo();
    EXPECT_EQ(CreateVkProcessor(), nullptr);
    EXPECT_EQ(gModuleCreateInfoFunc, &DummyModuleCreate);
}

TEST(FactoryTest, StarRailProcessorIsCreatedWithItsValidModules) {
    SetApplication(vulkan::ZOVK_APPLICATION_STAR_RAIL);
    auto* data = new ZoVkStarRailData();
    data->moduleIds = {1, 2, 4};
    ZoVkSettings::GetInstance()->SetProcessorData(data);
    InitProcessorCreateInfo();
    EXPECT_EQ(gModuleCreateInfoFunc, &InitStarRailModuleCreateInfo);
    // Id 1 works, id 2 gives up in OnBegin, id 4 is invalid from the start.
    gCreateModuleMap[1] = [](ZoVkProcessorBase* p) { return new LoggedModule(p, 1, true); };
    gCreateModuleMap[2] = [](ZoVkProcessorBase* p) { return new LoggedModule(p, 2, false); };
    gCreateModuleMap[4] = [](ZoVkProcessorBase* p) {
        auto* m = new LoggedModule(p, 4, true);
        m->valid = false;
        return m;
    };

    gLog.clear();
    std::shared_ptr<ZoVkProcessorBase> processor = CreateVkProcessor();
    ASSERT_NE(processor, nullptr);
    EXPECT_EQ(processor->GetProcessorId(), ZoVkStarRailProcessor::PROCESSOR_TYPE);
    ASSERT_EQ(processor->GetVkModules().size(), 1u);
    EXPECT_EQ(processor->GetVkModule(1)->GetModuleId(), 1u);
    EXPECT_EQ(processor->GetVkModule(2), nullptr);
    // Dropped modules still ran OnEnd before they were deleted.
    EXPECT_EQ(gLog, (std::vector<std::string>{"end 2", "delete 2", "end 4", "delete 4"}));

    gLog.clear();
    processor->OnEnd();
    EXPECT_EQ(gLog, (std::vector<std::string>{"unhook 1", "end 1", "delete 1"}));
}

TEST(FactoryTest, ModuleCreationRoutinesOnlyForTheirApplication) {
    SetApplication(vulkan::ZOVK_APPLICATION_ANTUTU);
    InitProcessorCreateInfo();
    EXPECT_EQ(gModuleCreateInfoFunc, &InitAntutuModuleCreateInfo);
    InitModuleCreateInfo(0);
    EXPECT_EQ(CreateProcessorVkModule(0, nullptr), nullptr);
    EXPECT_EQ(CreateProcessorModuleData(0, Json::Value()), nullptr);
}

TEST(FactoryTest, ReleasingAModuleEndsItFirst) {
    ReleaseProcessorVkModule(nullptr);
    ReleaseProcessorData(nullptr);
    ReleaseProcessorModuleData(nullptr);
    gLog.clear();
    ReleaseProcessorVkModule(new LoggedModule(nullptr, 9, true));
    EXPECT_EQ(gLog, (std::vector<std::string>{"end 9", "delete 9"}));
}

}  // namespace
