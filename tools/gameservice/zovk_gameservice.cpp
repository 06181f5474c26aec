// zovk-gameservice: the host stand-in for the device's game service.
//
//   zovk-gameservice --config FILE     serve until SIGINT or SIGTERM
//   zovk-gameservice push "RECORD"     hand an in-game state record (e.g. "6 com.miHoYo.hkrpg 2")
//                                      to the layers registered for the record's package
//
// FILE is a JSON object keyed by process name; each value is the document returned to
// that process's configuration fetch. Every transaction is logged on stdout, one line
// each, for people and tests to read.
#include <signal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <json/reader.h>
#include <json/writer.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "settings/zovk_pavune.h"

namespace {

namespace pavune = vulkan::zovk::pavune;
using android::Parcel;
using android::sp;
using android::String16;
using android::String8;

// Not one of the layer's transactions: the push command's way into the running service.
constexpr uint32_t kTransactionPushRecord = 0x7a6f7631;  // 'zov1'
constexpr char kCallbackDescriptor[] = "com.veltra.pavune.IGameInfoUpdate";
constexpr uint32_t kCallbackSendToZoGL = 1;

std::mutex gOutLock;

void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Log(const char* format, ...) {
    std::lock_guard<std::mutex> guard(gOutLock);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::putchar('\n');
    std::fflush(stdout);
}

std::string ToUtf8(const String16& text) {
    return String8(text).c_str();
}

class PavuneService : public android::BBinder {
public:
    explicit PavuneService(std::map<std::string, std::string> documents) : documents_(std::move(documents)) {}

    const String16& getInterfaceDescriptor() const override {
        static const String16 descriptor(pavune::kInterfaceToken);
        return descriptor;
    }

protected:
    android::status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != kTransactionPushRecord && code != pavune::kTransactionFetchConfig &&
            code != pavune::kTransactionMonitorStarted && code != pavune::kTransactionRegisterCallback &&
            code != pavune::kTransactionSceneId) {
            return android::BBinder::onTransact(code, data, reply, flags);
        }
        if (!data.enforceInterface(getInterfaceDescriptor())) {
            Log("transaction %u: wrong interface token", code);
            return android::BAD_TYPE;
        }
        switch (code) {
            case pavune::kTransactionFetchConfig:
                return FetchConfig(data, reply);
            case pavune::kTransactionMonitorStarted:
                Log("transaction 29 monitor-started %s", ToUtf8(data.readString16()).c_str());
                return android::OK;
            case pavune::kTransactionRegisterCallback:
                return RegisterCallback(data);
            case pavune::kTransactionSceneId: {
                const int32_t kind = data.readInt32();
                Log("transaction 3 scene-report %d %s", kind, ToUtf8(data.readString16()).c_str());
                return android::OK;
            }
            default:
                return PushRecord(data, reply);
        }
    }

private:
    android::status_t FetchConfig(const Parcel& data, Parcel* reply) {
        const std::string name = ToUtf8(data.readString16());
        const auto it = documents_.find(name);
        const std::string document = it == documents_.end() ? "" : it->second;
        Log("transaction 30 fetch %s -> %zu bytes", name.c_str(), document.size());
        reply->writeNoException();
        reply->writeString16(String16(document.c_str()));
        return android::OK;
    }

    android::status_t RegisterCallback(const Parcel& data) {
        const std::string name = ToUtf8(data.readString16());
        const sp<android::IBinder> callback = data.readStrongBinder();
        Log("transaction 35 register %s binder=%s", name.c_str(), callback != nullptr ? "yes" : "no");
        if (callback != nullptr) {
            std::lock_guard<std::mutex> guard(lock_);
            callbacks_[name] = callback;
        }
        return android::OK;
    }

    // The record's second field is the package; its layers registered as "<package>_zovk".
    android::status_t PushRecord(const Parcel& data, Parcel* reply) {
        const String16 record = data.readString16();
        std::istringstream fields(ToUtf8(record));
        std::string type;
        std::string package;
        fields >> type >> package;
        sp<android::IBinder> callback;
        {
            std::lock_guard<std::mutex> guard(lock_);
            const auto it = callbacks_.find(package + "_zovk");
            if (it != callbacks_.end()) {
                callback = it->second;
            }
        }
        int32_t delivered = 0;
        if (callback != nullptr) {
            Parcel call;
            Parcel answer;
            call.writeInterfaceToken(String16(kCallbackDescriptor));
            call.writeString16(record);
            const android::status_t status = callback->transact(kCallbackSendToZoGL, call, &answer, 0);
            if (status == android::OK && answer.readExceptionCode() == 0) {
                delivered = 1;
            } else {
                Log("push to %s_zovk failed (status %d)", package.c_str(), status);
                if (status == android::DEAD_OBJECT) {
                    std::lock_guard<std::mutex> guard(lock_);
                    callbacks_.erase(package + "_zovk");
                }
            }
        }
        Log("push \"%s\" -> %d layer(s)", ToUtf8(record).c_str(), delivered);
        reply->writeInt32(delivered);
        return android::OK;
    }

    const std::map<std::string, std::string> documents_;
    std::mutex lock_;
    std::map<std::string, sp<android::IBinder>> callbacks_;
};

bool LoadDocuments(const char* path, std::map<std::string, std::string>* documents) {
    std::ifstream file(path);
    if (!file) {
        std::fprintf(stderr, "zovk-gameservice: cannot read %s\n", path);
        return false;
    }
    Json::Value root;
    Json::Reader reader;
    if (!reader.parse(file, root, false) || !root.isObject()) {
        std::fprintf(stderr, "zovk-gameservice: %s is not a JSON object keyed by process name: %s\n", path,
                     reader.getFormattedErrorMessages().c_str());
        return false;
    }
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    for (const std::string& name : root.getMemberNames()) {
        // Strings are sent as they are (a test can hand out malformed text on purpose).
        (*documents)[name] = root[name].isString() ? root[name].asString() : writer.write(root[name]);
    }
    return true;
}

int Serve(const char* configPath) {
    std::map<std::string, std::string> documents;
    if (!LoadDocuments(configPath, &documents)) {
        return 2;
    }
    // Signals are taken by sigwait below, not by whichever thread they land on.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const sp<PavuneService> service = new PavuneService(std::move(documents));
    if (android::defaultServiceManager()->addService(String16(pavune::kServiceName), service) != android::OK) {
        std::fprintf(stderr, "zovk-gameservice: cannot register %s (another instance running?)\n",
                     pavune::kServiceName);
        return 1;
    }
    android::ProcessState::self()->startThreadPool();
    Log("serving %s with %s", pavune::kServiceName, configPath);
    int signal = 0;
    sigwait(&signals, &signal);
    Log("stopping on signal %d", signal);
    return 0;
}

int Push(const char* record) {
    const sp<android::IBinder> service = android::defaultServiceManager()->checkService(String16(pavune::kServiceName));
    if (service == nullptr) {
        std::fprintf(stderr, "zovk-gameservice: %s is not running\n", pavune::kServiceName);
        return 2;
    }
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(String16(pavune::kInterfaceToken));
    data.writeString16(String16(record));
    const android::status_t status = service->transact(kTransactionPushRecord, data, &reply, 0);
    if (status != android::OK) {
        std::fprintf(stderr, "zovk-gameservice: push failed (status %d)\n", status);
        return 2;
    }
    const int32_t delivered = reply.readInt32();
    std::printf("delivered to %d layer(s)\n", delivered);
    return delivered > 0 ? 0 : 1;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: zovk-gameservice --config FILE\n"
                 "       zovk-gameservice push \"RECORD\"\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--config") == 0) {
        return Serve(argv[2]);
    }
    if (argc == 3 && std::strcmp(argv[1], "push") == 0) {
        return Push(argv[2]);
    }
    return Usage();
}
