// Linux hosts have no system properties: they are read from the name=value file that
// ZOVK_PROPERTIES names. Unset names, a missing variable or an unreadable file give
// the caller's default, as an unset property does on a device.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include <android/log.h>
#include <cutils/properties.h>

namespace {

constexpr char kTag[] = "libZoVK";

std::string Trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) {
        return "";
    }
    const auto end = text.find_last_not_of(" \t\r");
    return text.substr(begin, end - begin + 1);
}

// The value of `key` in the properties file; false when it has none.
bool FindProperty(const char* key, std::string* value) {
    const char* path = std::getenv("ZOVK_PROPERTIES");
    if (path == nullptr || *path == '\0') {
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "properties file %s cannot be read", path);
        return false;
    }
    std::string line;
    bool found = false;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string text = Trim(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        const auto eq = text.find('=');
        if (eq == std::string::npos || eq == 0) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "%s:%d: not a name=value line, ignored", path, number);
            continue;
        }
        // The last assignment wins, as with setprop.
        if (Trim(text.substr(0, eq)) == key) {
            *value = Trim(text.substr(eq + 1));
            found = true;
        }
    }
    return found;
}

}  // namespace

// Same coercion as libcutils.
int8_t property_get_bool(const char* key, int8_t default_value) {
    std::string value;
    if (key == nullptr || !FindProperty(key, &value)) {
        return default_value;
    }
    if (value == "1" || value == "y" || value == "yes" || value == "on" || value == "true") {
        return 1;
    }
    if (value == "0" || value == "n" || value == "no" || value == "off" || value == "false") {
        return 0;
    }
    __android_log_print(ANDROID_LOG_WARN, kTag, "property %s=%s is not a boolean, default used", key, value.c_str());
    return default_value;
}
