#include "settings/zovk_settings.h"

#include <unistd.h>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <cutils/properties.h>

#include "app/zovk_factory.h"
#include "app/zovk_processor_data_base.h"
#include "settings/zovk_log.h"
#include "settings/zovk_log_switch.h"

namespace vulkan::zovk {

// Runs once, on first use, under the thread-safe initialisation of the singleton.
ZoVkSettings::ZoVkSettings()
    : pid_(getpid()),
      layerName_(kZoVkLayerName),
      logDebug_(property_get_bool("vendor.zovk.log.debug", false) != 0),
      vrsConforming_(property_get_bool("vendor.zovk.vrs.conforming", false) != 0) {}

const std::unordered_map<std::string, ZoVkApplicationType>& ZoVkSettings::PackageTable() {
    using Table = std::unordered_map<std::string, ZoVkApplicationType>;
    static ZoVkNeverDestroyed<const Table> table(Table{
        {"com.antutu.benchmark.full:ue", ZOVK_APPLICATION_ANTUTU},
        {"com.miHoYo.hkrpg", ZOVK_APPLICATION_STAR_RAIL},
        {"com.HoYoverse.hkrpgoversea", ZOVK_APPLICATION_STAR_RAIL},
    });
    return *table.Get();
}

void ZoVkSettings::InitDataInfo() {
    std::call_once(dataInfoOnce_, [this] { InitDataInfoOnce(); });
}

void ZoVkSettings::InitDataInfoOnce() {
    const std::string path = android::base::StringPrintf("/proc/%d/cmdline", pid_);
    std::string content;
    if (!android::base::ReadFileToString(path, &content, false)) {
        ZOVK_LOGE("Failed to read the process name");
    }
    if (!IdentifyApplication(content)) {
        return;
    }
    SetProcessorData(app::CreateProcessorData());
    InitZoVKPrefs();
}

bool ZoVkSettings::IdentifyApplication(const std::string& cmdline) {
    // The command line's first argument, up to its first NUL, is the process name.
    const std::string key = cmdline.substr(0, cmdline.find('\0'));
    const auto& table = PackageTable();
    const auto it = table.find(key);
    if (it == table.end()) {
        return false;
    }
    applicationType_ = it->second;
    processName_ = android::String8(key.c_str());
    ZOVK_LOGD("process %s recognised as application type %u", key.c_str(),
              static_cast<unsigned>(applicationType_));
    return true;
}

void ZoVkSettings::SetProcessorData(app::ZoVkProcessorDataBase* data) {
    if (data == processorData_) {
        return;
    }
    app::ReleaseProcessorData(processorData_);
    processorData_ = data;
}

app::ZoVkProcessorDataBase* ZoVkSettings::GetProcessorData() {
    if (processorData_ != nullptr) {
        return processorData_;
    }
    static ZoVkNeverDestroyed<app::ZoVkProcessorDataBase> defaultData;
    return defaultData.Get();
}

std::vector<std::string> ZoVkSettings::Split(const std::string& text, const std::string& delimiters) {
    std::vector<std::string> tokens;
    std::string::size_type pos = 0;
    while (pos < text.size()) {
        pos = text.find_first_not_of(delimiters, pos);
        if (pos == std::string::npos) {
            break;
        }
        const std::string::size_type end = text.find_first_of(delimiters, pos);
        tokens.push_back(text.substr(pos, end == std::string::npos ? std::string::npos : end - pos));
        pos = end;
    }
    return tokens;
}

bool ZoVkSettings::IsIntChar(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    for (const char c : text) {
        if (c < '0' || c > '9') {
            ZOVK_LOGE("isIntChar is not int: %s", text.c_str());
            return false;
        }
    }
    return true;
}

ZoVkSettings::Decimal ZoVkSettings::ParseDecimal(const std::string& text, uint64_t max, uint64_t* value) {
    if (!IsIntChar(text)) {
        return Decimal::kNotDecimal;
    }
    uint64_t number = 0;
    for (const char c : text) {
        const auto digit = static_cast<uint64_t>(c - '0');
        if (digit > max || number > (max - digit) / 10) {
            return Decimal::kTooLarge;
        }
        number = number * 10 + digit;
    }
    *value = number;
    return Decimal::kOk;
}

bool IsLogDebug() {
    return ZoVkSettings::GetInstance()->IsLogDebug();
}

}  // namespace vulkan::zovk
