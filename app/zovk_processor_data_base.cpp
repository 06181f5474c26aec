#include "app/zovk_processor_data_base.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <regex>
#include <set>

#include "app/zovk_factory.h"
#include "app/zovk_module_base.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_log.h"
#include "settings/zovk_never_destroyed.h"
#include "settings/zovk_settings.h"

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

struct ZoVkProcessorDataBase::CompiledPattern {
    std::regex regex;
};

ZoVkProcessorDataBase::ZoVkProcessorDataBase() = default;

ZoVkProcessorDataBase::~ZoVkProcessorDataBase() {
    for (auto& [id, data] : moduleData) {
        ReleaseProcessorModuleData(data);
    }
}

namespace {

// "xrender_BaseInfo": the decimal module mask. Anything but plain digits is refused, so
// that no module can be switched on by a malformed value.
bool ParseModuleMask(const std::string& text, unsigned long* mask) {
    uint64_t value = 0;
    switch (ZoVkSettings::ParseDecimal(text, std::numeric_limits<unsigned long>::max(), &value)) {
        case ZoVkSettings::Decimal::kOk:
            *mask = static_cast<unsigned long>(value);
            return true;
        case ZoVkSettings::Decimal::kNotDecimal:
            ZOVK_LOGW("xrender_BaseInfo \"%s\" is not a decimal number; no module switched on", text.c_str());
            return false;
        case ZoVkSettings::Decimal::kTooLarge:
            break;
    }
    ZOVK_LOGW("xrender_BaseInfo \"%s\" is out of range; no module switched on", text.c_str());
    return false;
}

// A "xrender_CheckMainInfo" switch: any decimal, on unless it is 0, however many digits.
bool ParseSwitch(const std::string& text, bool* on) {
    uint64_t zero = 0;
    const ZoVkSettings::Decimal result = ZoVkSettings::ParseDecimal(text, 0, &zero);
    *on = result == ZoVkSettings::Decimal::kTooLarge;
    return result != ZoVkSettings::Decimal::kNotDecimal;
}

std::string StringMember(const Json::Value& config, const char* key) {
    const Json::Value& value = config[key];
    if (value.isString()) {
        return value.asString();
    }
    // Numbers are accepted as their text; anything else is a configuration error.
    if (value.isIntegral()) {
        return value.asString();
    }
    ZOVK_LOGW("%s is not a string; ignored", key);
    return "";
}

}  // namespace

bool ZoVkProcessorDataBase::InitProcessorConfigData(const Json::Value& config) {
    if (!config.isObject()) {
        ZOVK_LOGW("configs is not an object; no module switched on");
        return false;
    }
    if (config.isMember("xrender_BaseInfo")) {
        const std::string baseInfo = StringMember(config, "xrender_BaseInfo");
        ZOVK_LOGD("BI: %s", baseInfo.c_str());
        unsigned long mask = 0;
        if (!baseInfo.empty() && ParseModuleMask(baseInfo, &mask)) {
            moduleMask |= mask;
        }
    }
    if (moduleMask == 0) {
        return false;
    }
    InitProcessorCreateInfo();
    InitModuleIdArray(moduleMask);

    if (config.isMember("xrender_CheckMainInfo")) {
        const std::string checkMain = StringMember(config, "xrender_CheckMainInfo");
        if (!checkMain.empty()) {
            const std::vector<std::string> pieces = ZoVkSettings::Split(checkMain, ";");
            bool check = false;
            bool lock = false;
            if (pieces.size() == 3 && ParseSwitch(pieces[0], &check) && ParseSwitch(pieces[1], &lock)) {
                checkRenderThread = check;
                useLock = lock;
                SetRenderThreadPattern(pieces[2]);
            } else if (!pieces.empty()) {
                ZOVK_LOGW("xrender_CheckMainInfo \"%s\" is not check;lock;pattern; thread check off",
                          checkMain.c_str());
                checkRenderThread = false;
            }
        }
    }

    std::vector<unsigned int> unusable;
    for (const unsigned int id : moduleIds) {
        if (!InitProcessorModuleData(id, config)) {
            unusable.push_back(id);
        }
    }
    for (const unsigned int id : unusable) {
        EraseModuleId(id);
    }
    if (moduleIds.empty()) {
        return false;
    }
    ColloctModuleExtensionFunctions();
    ZoVkSettings::GetInstance()->SetHookFlags(kHookModulesConfigured);
    android::ZoVkAppInfoMonitor::GetInstance()->Start();
    return true;
}

void ZoVkProcessorDataBase::SetRenderThreadPattern(const std::string& pattern) {
    renderThreadPattern_ = pattern;
    renderThreadRegex_.reset();
    if (pattern.size() > kMaxRenderThreadPattern) {
        ZOVK_LOGW("render thread pattern of %zu characters is longer than %zu; no thread is served", pattern.size(),
                  kMaxRenderThreadPattern);
        return;
    }
    try {
        renderThreadRegex_ = std::make_unique<const CompiledPattern>(CompiledPattern{std::regex(pattern)});
    } catch (const std::exception& e) {
        ZOVK_LOGW("render thread pattern \"%s\" is not a valid expression (%s); no thread is served", pattern.c_str(),
                  e.what());
    }
}

bool ZoVkProcessorDataBase::IsRenderThread(const char* threadName) const {
    if (!renderThreadRegex_) {
        return false;
    }
    try {
        return std::regex_match(threadName, renderThreadRegex_->regex);
    } catch (const std::exception& e) {
        ZOVK_LOGW("render thread pattern \"%s\" failed on \"%s\" (%s)", renderThreadPattern_.c_str(), threadName,
                  e.what());
        return false;
    }
}

void ZoVkProcessorDataBase::InitModuleIdArray(unsigned long mask) {
    // Bits 30 and above are not module ids.
    for (unsigned int bit = 0; bit < 30; ++bit) {
        const unsigned int id = 1u << bit;
        if ((mask & id) != 0 && !HasModuleId(id)) {
            moduleIds.push_back(id);
            InitModuleCreateInfo(id);
        }
    }
}

bool ZoVkProcessorDataBase::InitProcessorModuleData(unsigned int id, const Json::Value& config) {
    if (moduleData.count(id) != 0) {
        return true;
    }
    module::ZoVkModuleDataBase* data = CreateProcessorModuleData(id, config);
    if (data != nullptr && data->valid) {
        moduleData.emplace(id, data);
        return true;
    }
    ReleaseProcessorModuleData(data);
    return false;
}

const std::vector<std::string>& ZoVkProcessorDataBase::GetModuleExtensionFunctions(unsigned int, bool) {
    static ZoVkNeverDestroyed<const std::vector<std::string>> none;
    return *none.Get();
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
