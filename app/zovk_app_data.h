#pragma once

#include "app/zovk_processor_data_base.h"

namespace vulkan::zovk::app {

// Configuration data of one recognised application: its modules' needed extension
// functions come from two static tables, module id to function names.
class ZoVkAppDataBase : public ZoVkProcessorDataBase {
public:
    ZoVkAppDataBase(const ZoVkModuleFunctionTable& instanceTable, const ZoVkModuleFunctionTable& deviceTable);

    void ColloctModuleExtensionFunctions() override;
    const std::vector<std::string>& GetModuleExtensionFunctions(unsigned int moduleId, bool instanceLevel) override;

private:
    const ZoVkModuleFunctionTable& instanceTable_;
    const ZoVkModuleFunctionTable& deviceTable_;
};

class ZoVkAntutuData : public ZoVkAppDataBase {
public:
    ZoVkAntutuData();
};

class ZoVkStarRailData : public ZoVkAppDataBase {
public:
    ZoVkStarRailData();
};

}  // namespace vulkan::zovk::app
