#include "app/zovk_processor_data_base.h"

#include <algorithm>
#include <set>

#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app {

namespace {

void RemoveIdFromFunctions(std::unordered_map<std::string, std::vector<unsigned int>>& functions,
                           const std::vector<std::string>& names, unsigned int id) {
    for (const std::string& name : names) {
        const auto it = functions.find(name);
        if (it == functions.end()) {
            continue;
        }
        auto& ids = it->second;
        ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
        if (ids.empty()) {
            functions.erase(it);
        }
    }
}

}  // namespace

ZoVkProcessorDataBase::~ZoVkProcessorDataBase() {
    for (auto& [id, data] : moduleData) {
        ReleaseProcessorModuleData(data);
    }
}

const std::vector<std::string>& ZoVkProcessorDataBase::GetModuleExtensionFunctions(unsigned int, bool) {
    static const std::vector<std::string> none;
    return none;
}

bool ZoVkProcessorDataBase::HasModuleId(unsigned int id) const {
    return std::find(moduleIds.begin(), moduleIds.end(), id) != moduleIds.end();
}

module::ZoVkModuleDataBase* ZoVkProcessorDataBase::GetProcessorModuleData(unsigned int id) const {
    const auto it = moduleData.find(id);
    return it == moduleData.end() ? nullptr : it->second;
}

void ZoVkProcessorDataBase::EraseModuleId(unsigned int id) {
    if (!HasModuleId(id)) {
        return;
    }
    moduleIds.erase(std::remove(moduleIds.begin(), moduleIds.end(), id), moduleIds.end());
    const auto it = moduleData.find(id);
    if (it != moduleData.end()) {
        ReleaseProcessorModuleData(it->second);
        moduleData.erase(it);
    }
    RemoveIdFromFunctions(instanceExtensionFunctions, GetModuleExtensionFunctions(id, true), id);
    RemoveIdFromFunctions(deviceExtensionFunctions, GetModuleExtensionFunctions(id, false), id);
}

void ZoVkProcessorDataBase::Collect(const std::vector<unsigned int>& ids, const ZoVkModuleFunctionTable& table,
                                    FunctionModules& functions) {
    for (const unsigned int id : ids) {
        const auto it = table.find(id);
        if (it == table.end()) {
            continue;
        }
        for (const std::string& name : it->second) {
            functions[name].push_back(id);
        }
    }
}

void ZoVkProcessorDataBase::CollectInstanceExtensionFunctions(const ZoVkModuleFunctionTable& table) {
    Collect(moduleIds, table, instanceExtensionFunctions);
}

void ZoVkProcessorDataBase::CollectDeviceExtensionFunctions(const ZoVkModuleFunctionTable& table) {
    Collect(moduleIds, table, deviceExtensionFunctions);
}

void ZoVkProcessorDataBase::EraseModulesWhere(const FunctionModules& functions, const ZoVkFunctionTest& test,
                                              bool erase_when) {
    // Gather first: erasing edits the very map being walked.
    std::set<unsigned int> doomed;
    for (const auto& [name, ids] : functions) {
        if (test(name) == erase_when) {
            doomed.insert(ids.begin(), ids.end());
        }
    }
    for (const unsigned int id : doomed) {
        EraseModuleId(id);
    }
}

void ZoVkProcessorDataBase::CheckInstanceExtensionFunctions(const ZoVkFunctionTest& test) {
    EraseModulesWhere(instanceExtensionFunctions, test, true);
}

void ZoVkProcessorDataBase::CheckDeviceExtensionFunctions(const ZoVkFunctionTest& test) {
    EraseModulesWhere(deviceExtensionFunctions, test, true);
}

void ZoVkProcessorDataBase::InitInstanceExtensionFunctions(const ZoVkFunctionTest& test) {
    EraseModulesWhere(instanceExtensionFunctions, test, false);
}

void ZoVkProcessorDataBase::InitDeviceExtensionFunctions(const ZoVkFunctionTest& test) {
    EraseModulesWhere(deviceExtensionFunctions, test, false);
}

bool ZoVkProcessorDataBase::RemoveFunction(const FunctionModules& functions, const std::string& name) {
    if (!removeExtensionFunctions) {
        return false;
    }
    const auto it = functions.find(name);
    if (it != functions.end()) {
        const std::vector<unsigned int> ids = it->second;
        for (const unsigned int id : ids) {
            EraseModuleId(id);
        }
    }
    return true;
}

bool ZoVkProcessorDataBase::RemoveInstanceExtensionFunction(const std::string& name) {
    return RemoveFunction(instanceExtensionFunctions, name);
}

bool ZoVkProcessorDataBase::RemoveDeviceExtensionFunction(const std::string& name) {
    return RemoveFunction(deviceExtensionFunctions, name);
}

}  // namespace vulkan::zovk::app
