// The processor base: module registration, the order of tear-down, and module creation in
// OnBegin.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"
#include "app/zovk_processor_data_base.h"
#include "layer/zovk_records.h"
#include "settings/zovk_settings.h"
#include "tests/support/test_processor.h"

namespace zovk_test {
namespace {

using vulkan::zovk::ZoVkSettings;
using vulkan::zovk::app::ZoVkProcessorBase;
using vulkan::zovk::app::module::ZoVkModuleBase;
using Log = std::vector<std::string>;

Log gModuleLog;

// Writes each call it gets as "<name>:<call>".
class LoggingModule : public ZoVkModuleBase {
public:
    LoggingModule(ZoVkProcessorBase* processor, std::string name, unsigned int id, bool validAtCreation = true,
                  bool validAfterBegin = true)
        : ZoVkModuleBase(processor), name_(std::move(name)), id_(id), validAfterBegin_(validAfterBegin) {
        valid = validAtCreation;  // false: e.g. its configuration is absent
    }
    ~LoggingModule() override { Add("deleted"); }

    unsigned int GetModuleId() const override { return id_; }
    void UnregisterModuleInstanceFunctors() override { Add("UnregisterInstanceFunctors"); }
    void UnregisterModuleDeviceFunctors() override { Add("UnregisterDeviceFunctors"); }
    void RegisterModuleDeviceFunctors() override { Add("RegisterDeviceFunctors"); }
    void RegisterModuleVkDeviceHooks() override { Add("RegisterDeviceHooks"); }
    void OnBegin() override {
        Add("OnBegin");
        valid = validAfterBegin_;
    }
    void OnEnd() override { Add("OnEnd"); }

private:
    void Add(const std::string& call) const { gModuleLog.push_back(name_ + ":" + call); }

    std::string name_;
    unsigned int id_;
    bool validAfterBegin_;
};

TEST(ProcessorBase, AModuleRegisteredTwiceIsKeptOnceAndOnEndReleasesEachOnceInReverseOrder) {
    TestProcessor processor;
    auto* first = new LoggingModule(&processor, "A", 1);
    for (LoggingModule* module : {first, first, static_cast<LoggingModule*>(nullptr),
                                  new LoggingModule(&processor, "B", 2), new LoggingModule(&processor, "C", 4)}) {
        processor.RegisterModule(module);
    }
    ASSERT_EQ(processor.GetVkModules().size(), 3u);
    EXPECT_EQ(processor.GetVkModule(1), first);
    EXPECT_EQ(processor.GetVkModule(8), nullptr);
    processor.OnEnd();
    Log released;
    for (const char* name : {"C", "B", "A"}) {
        for (const char* call : {"UnregisterInstanceFunctors", "UnregisterDeviceFunctors", "OnEnd", "deleted"}) {
            released.push_back(std::string(name) + ":" + call);
        }
    }
    EXPECT_EQ(gModuleLog, released);
    EXPECT_TRUE(processor.GetVkModules().empty());
}

TEST(ProcessorBase, OnBeginKeepsOnlyTheModulesThatStayValid) {
    auto* data = new vulkan::zovk::app::ZoVkProcessorDataBase;
    data->moduleIds = {1, 2, 4, 8};
    ZoVkSettings::GetInstance()->SetProcessorData(data);
    using vulkan::zovk::app::gCreateModuleMap;
    gCreateModuleMap[1] = [](ZoVkProcessorBase* p) { return new LoggingModule(p, "bad", 1, false); };
    gCreateModuleMap[2] = [](ZoVkProcessorBase* p) { return new LoggingModule(p, "fails", 2, true, false); };
    gCreateModuleMap[8] = [](ZoVkProcessorBase* p) { return new LoggingModule(p, "good", 8); };
    // Id 4 has no creator.

    TestProcessor processor;
    processor.OnBegin();
    EXPECT_EQ(gModuleLog, (Log{"bad:OnEnd", "bad:deleted", "fails:OnBegin", "fails:OnEnd", "fails:deleted",
                               "good:OnBegin"}));
    ASSERT_EQ(processor.GetVkModules().size(), 1u);
    EXPECT_EQ(processor.GetVkModules()[0]->GetModuleId(), 8u);

    // A module whose id was erased from the configuration since gets no hooks.
    gModuleLog.clear();
    processor.InitVkDeviceHooks();
    EXPECT_EQ(gModuleLog, (Log{"good:RegisterDeviceHooks", "good:RegisterDeviceFunctors"}));
    data->EraseModuleId(8);
    gModuleLog.clear();
    processor.InitVkDeviceHooks();
    EXPECT_TRUE(gModuleLog.empty());
    processor.OnEnd();
}

}  // namespace
}  // namespace zovk_test
