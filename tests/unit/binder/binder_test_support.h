#pragma once

// What the binder tests share: a binder directory per test, a test service, and that service
// run in a child process.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String8.h>

namespace zovk_test {

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// `size` bytes of `value`, little-endian.
inline Bytes Le(uint64_t value, int size) {
    Bytes bytes;
    for (int i = 0; i < size; ++i) {
        bytes.push_back(uint8_t(value >> (8 * i)));
    }
    return bytes;
}

// A fresh directory for the test's sockets, named by ZOVK_BINDER_DIR while it lives; the
// binder directory itself is a child, so that its creation can be seen.
class BinderDir {
public:
    BinderDir() {
        char pattern[] = "/tmp/zovk-binder-test-XXXXXX";
        root_ = mkdtemp(pattern);
        path_ = root_ + "/binder";
        setenv("ZOVK_BINDER_DIR", path_.c_str(), 1);
    }
    ~BinderDir() {
        unsetenv("ZOVK_BINDER_DIR");
        // Binder threads may still be removing the sockets of objects that died with the test.
        std::error_code error;
        for (int attempt = 0; attempt < 100 && std::filesystem::remove_all(root_, error) == std::uintmax_t(-1);
             ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    const std::string& root() const { return root_; }
    const std::string& path() const { return path_; }
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(path_, ignored)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
    bool HasNodeOf(pid_t pid) const {
        const std::string prefix = ".node-" + std::to_string(pid) + "-";
        const auto names = Entries();
        return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return n.rfind(prefix, 0) == 0; });
    }

private:
    std::string root_;
    std::string path_;
};

// Polls `done` until it holds or ten seconds pass.
inline bool Eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

inline android::sp<android::IBinder> Find(const char* name) {
    return android::defaultServiceManager()->checkService(android::String16(name));
}

// A service that echoes, tells its pid, and holds and calls back the binder it is sent.
class TestService : public android::BBinder {
public:
    static inline const android::String16 kDescriptor{"zovk.test.IService"};
    enum : uint32_t {
        ECHO = FIRST_CALL_TRANSACTION,  // token, string -> no exception, the string
        WHO,                            // -> our pid
        HOLD,                           // binder -> kept (none: the kept one dropped)
        CALL_HELD,                      // -> WHO on the kept binder
    };

    const android::String16& getInterfaceDescriptor() const override { return kDescriptor; }
    // Calls `code` without arguments; the reply's first int32.
    static int32_t Call(const android::sp<android::IBinder>& binder, uint32_t code) {
        android::Parcel data, reply;
        binder->transact(code, data, &reply);
        return reply.readInt32();
    }

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override {
        std::lock_guard<std::mutex> guard(lock_);
        switch (code) {
            case ECHO:
                if (!data.enforceInterface(kDescriptor)) {
                    return android::BAD_TYPE;
                }
                reply->writeNoException();
                return reply->writeString16(data.readString16());
            case WHO:
                return reply->writeInt32(getpid());
            case HOLD:
                held_ = data.readStrongBinder();
                return android::OK;
            case CALL_HELD:
                return reply->writeInt32(held_ != nullptr ? Call(held_, WHO) : -2);
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    std::mutex lock_;
    android::sp<android::IBinder> held_;
};

// A TestService in a child process, registered under `name` and serving until killed; the
// constructor returns once it is registered. `logPath` receives the child's stderr (liblog).
class ChildService {
public:
    explicit ChildService(const char* name, const std::string& logPath = "") {
        int ready[2];
        if (pipe(ready) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            signal(SIGPIPE, SIG_IGN);  // nobody may be listening for the answer
            if (!logPath.empty()) {
                dup2(open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            }
            const bool ok = android::defaultServiceManager()->addService(android::String16(name), new TestService()) ==
                            android::OK;
            (void)!write(ready[1], ok ? "y" : "n", 1);
            android::IPCThreadState::self()->joinThreadPool();
            _exit(0);
        }
        close(ready[1]);
        pollfd p{ready[0], POLLIN, 0};
        char answer = 0;
        registered_ = poll(&p, 1, 10000) == 1 && read(ready[0], &answer, 1) == 1 && answer == 'y';
        close(ready[0]);
    }
    ~ChildService() { KillAndReap(); }
    ChildService(const ChildService&) = delete;
    ChildService& operator=(const ChildService&) = delete;

    bool registered() const { return registered_; }
    pid_t pid() const { return pid_; }
    // A stop is waited for, so that no call made after it can still be answered.
    void Signal(int sig) const {
        if (pid_ > 0 && kill(pid_, sig) == 0 && sig == SIGSTOP) {
            int status = 0;
            waitpid(pid_, &status, WUNTRACED);
        }
    }
    void KillAndReap() {
        if (pid_ > 0) {
            kill(pid_, SIGCONT);
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
    bool registered_ = false;
};

}  // namespace zovk_test
