// The game service's client, and the configuration fetch: the service answers a recognised
// process with a JSON document whose "configs" object decides which modules run.
#include <cstddef>
#include <functional>
#include <string>

#include <json/reader.h>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "settings/zovk_log.h"
#include "settings/zovk_pavune.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk {

namespace pavune {

namespace {

// Where a transaction's service comes from, which decides what the service's death means to it.
enum class Target {
    kFindAndKeep,  // looked up and kept in the settings; a death clears the kept reference
    kKept,         // the kept reference, never looked up again: nothing to send to after a death
    kFind,         // looked up afresh on every call: a death only makes the next lookup fail
};

// A transaction and the lines it logs, each in its own words (tools read them).
struct Transaction {
    uint32_t code;
    Target target;
    const char* tag;
    const char* noService;  // warning
    const char* failed;     // error
};

constexpr Transaction kFetch{kTransactionFetchConfig, Target::kFindAndKeep, ZOVK_LOG_TAG, "remote service not exist.",
                             "vxxk:call remote service failed."};
constexpr Transaction kRegister{kTransactionRegisterCallback, Target::kFind, ZOVK_LOG_TAG,
                                "remote service not exist.", "zovk:call remote service failed."};
constexpr Transaction kStarted{kTransactionMonitorStarted, Target::kKept, ZOVK_LOG_TAG, "remote service not exit",
                               "zovk:call remote service failed."};
constexpr Transaction kScene{kTransactionSceneId, Target::kFind, kSceneLogTag, "remote service not exist.",
                             "call remote service failed."};

// Clears the kept reference. Only the call that keeps it holds the recipient, so the binder's
// weak reference lapses when that call returns: a later death is not heard, by design, and
// the reference stays until the process ends.
class RemoteDeath : public android::IBinder::DeathRecipient {
public:
    void binderDied(const android::wp<android::IBinder>&) override { ZoVkSettings::GetInstance()->OnRemoteServiceDied(); }
};

// With `reply`, the reply is read: it starts with the service's exception code.
Outcome Send(const Transaction& transaction, const std::function<void(android::Parcel*)>& write,
             android::Parcel* reply = nullptr) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    const android::sp<android::IBinder> service =
        transaction.target == Target::kKept
            ? settings->GetRemoteService()
            : android::defaultServiceManager()->checkService(android::String16(kServiceName));
    if (transaction.target == Target::kFindAndKeep) {
        settings->SetRemoteService(service);
    }
    if (service == nullptr) {
        ZOVK_LOG(WARN, transaction.tag, "%s", transaction.noService);
        return Outcome::kNoService;
    }
    android::sp<RemoteDeath> recipient;
    if (transaction.target == Target::kFindAndKeep) {
        recipient = new RemoteDeath();
        service->linkToDeath(recipient, nullptr, 0);
    }
    android::Parcel data;
    android::Parcel unread;
    data.writeInterfaceToken(android::String16(kInterfaceToken));
    write(&data);
    if (service->transact(transaction.code, data, reply != nullptr ? reply : &unread, 0) != android::OK) {
        ZOVK_LOG(ERROR, transaction.tag, "%s", transaction.failed);
        return Outcome::kFailed;
    }
    if (reply != nullptr && reply->readExceptionCode() != 0) {
        return Outcome::kException;
    }
    return Outcome::kDone;
}

android::String16 Utf16(const std::string& text) {
    return android::String16(text.c_str());
}

}  // namespace

Outcome Client::FetchConfig(const std::string& process, std::string* document) {
    android::Parcel reply;
    const Outcome outcome = Send(kFetch, [&](android::Parcel* data) { data->writeString16(Utf16(process)); }, &reply);
    if (outcome == Outcome::kDone) {
        *document = android::String8(reply.readString16()).c_str();  // up to the first NUL
    }
    return outcome;
}

Outcome Client::RegisterCallback(const std::string& name, const android::sp<android::IBinder>& callback) {
    return Send(kRegister, [&](android::Parcel* data) {
        data->writeString16(Utf16(name));
        data->writeStrongBinder(callback);
    });
}

Outcome Client::NotifyMonitorStarted(const std::string& package) {
    return Send(kStarted, [&](android::Parcel* data) { data->writeString16(Utf16(package)); });
}

Outcome Client::ReportSceneId(int sceneId) {
    const std::string json = "{\"sceneId\":" + std::to_string(sceneId) + "}";
    return Send(kScene, [&](android::Parcel* data) {
        data->writeInt32(1);
        data->writeString16(Utf16(json));
    });
}

}  // namespace pavune

android::sp<android::IBinder> ZoVkSettings::GetRemoteService() const {
    std::lock_guard<std::mutex> guard(remoteLock_);
    return remoteService_;
}

void ZoVkSettings::SetRemoteService(const android::sp<android::IBinder>& service) {
    std::lock_guard<std::mutex> guard(remoteLock_);
    remoteService_ = service;
}

namespace {

// What a configuration document may be before the JSON reader sees it. The reader recurses per
// level and throws past its own depth limit, an abort where jsoncpp is built without
// exceptions; the service's documents are a few hundred bytes, two levels deep.
constexpr size_t kMaxDocumentSize = 64 * 1024;
constexpr size_t kMaxDepth = 32;
constexpr size_t kMaxStringLength = 4096;
constexpr size_t kMaxMembers = 1024;

std::string Bound(const char* what, size_t limit, const char* unit) {
    return std::string(what) + " " + std::to_string(limit) + " " + unit;
}

// Which bound `text` exceeds; empty when none. Strings and comments are skipped as the reader
// skips them, so that every bracket it would nest on is counted.
std::string ExceededBound(const std::string& text) {
    if (text.size() > kMaxDocumentSize) {
        return Bound("larger than", kMaxDocumentSize, "bytes");
    }
    size_t depth = 0;
    size_t members[kMaxDepth + 1] = {};
    for (size_t i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        switch (text[i]) {
            case '"': {
                const size_t start = i + 1;
                for (i = start; i < text.size() && text[i] != '"'; ++i) {
                    i += text[i] == '\\' ? 1 : 0;
                }
                if (i - start > kMaxStringLength) {
                    return Bound("a string longer than", kMaxStringLength, "bytes");
                }
                break;
            }
            case '/':
                if (next == '/') {
                    i = text.find_first_of("\r\n", i);
                } else if (next == '*') {
                    i = text.find("*/", i + 2);
                    i += i != std::string::npos ? 1 : 0;
                }
                if (i == std::string::npos) {
                    return "";  // the comment runs to the end, for the reader too
                }
                break;
            case '[':
            case '{':
                if (++depth > kMaxDepth) {
                    return Bound("nested deeper than", kMaxDepth, "levels");
                }
                members[depth] = 1;
                break;
            case ']':
            case '}':
                depth -= depth > 0 ? 1 : 0;
                break;
            case ',':
                if (depth > 0 && ++members[depth] > kMaxMembers) {
                    return Bound("more than", kMaxMembers, "members in one object or array");
                }
                break;
            default:
                break;
        }
    }
    return "";
}

}  // namespace

uint32_t ZoVkSettings::InitZoVKPrefs() {
    std::string json;
    const pavune::Outcome outcome = pavune::Client::FetchConfig(processName_.c_str(), &json);
    if (outcome != pavune::Outcome::kDone) {
        return static_cast<uint32_t>(outcome);
    }
    ZOVK_LOG(DEBUG, ZOVK_LOG_TAG, "vxxk v: %s, n: %s", pavune::kBuildTag, processName_.c_str());
    if (json.empty()) {
        return 5;
    }
    ReadFromPavune(json);
    return 0;
}

int ZoVkSettings::ReadFromPavune(const std::string& json) {
    const std::string excess = ExceededBound(json);
    if (!excess.empty()) {
        ZOVK_LOGW("configuration from the game service ignored: %s", excess.c_str());
        return 0;
    }
    Json::Value root;
    Json::Reader reader;
    if (!reader.parse(json, root, true)) {
        ZOVK_LOGW("configuration from the game service is not JSON: %s",
                  reader.getFormattedErrorMessages().c_str());
        return 0;
    }
    // A document that is not an object has no "configs".
    const Json::Value configs = root.isObject() ? root["configs"] : Json::Value();
    if (processorData_ != nullptr && processorData_->InitProcessorConfigData(configs)) {
        SetHookFlags(kHookConfigAccepted);
        ZOVK_LOGD("vxxk enf: %d", static_cast<int>(GetHookFlags()));
    }
    return 0;
}

void ZoVkSettings::OnRemoteServiceDied() {
    ZOVK_LOGE("ZoVK:remote service died.");
    SetRemoteService(nullptr);
}

}  // namespace vulkan::zovk
