#pragma once

// What the binder tests share: a binder directory per test, a small callback interface, a
// test service, and services run in child processes.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

namespace zovk_test {

// A fresh directory for the test's sockets, named by ZOVK_BINDER_DIR while it lives. The
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
        // Binder threads may still be removing sockets of objects that died with the test,
        // which makes remove_all stop half-way: try again.
        for (int attempt = 0; attempt < 100 && std::filesystem::exists(root_); ++attempt) {
            std::error_code error;
            if (std::filesystem::remove_all(root_, error) == static_cast<std::uintmax_t>(-1)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
    }
    const std::string& root() const { return root_; }
    const std::string& path() const { return path_; }

    // Names in the binder directory, hidden ones included.
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(path_, ignored)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

private:
    std::string root_;
    std::string path_;
};

// Polls `done` until it holds or a generous bound passes.
inline bool Eventually(const std::function<bool()>& done, std::chrono::seconds bound = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// --- a callback interface ------------------------------------------------------------------

class ITestCallback : public android::IInterface {
public:
    DECLARE_META_INTERFACE(TestCallback)
    enum { NOTE = android::IBinder::FIRST_CALL_TRANSACTION };
    // The number of notes taken so far, or -1 if the call failed.
    virtual int32_t note(const android::String16& text) = 0;
};

class BpTestCallback : public android::BpInterface<ITestCallback> {
public:
    explicit BpTestCallback(const android::sp<android::IBinder>& remote) : BpInterface<ITestCallback>(remote) {}
    int32_t note(const android::String16& text) override {
        android::Parcel data;
        android::Parcel reply;
        data.writeInterfaceToken(ITestCallback::descriptor);
        data.writeString16(text);
        if (remote()->transact(NOTE, data, &reply) != android::OK) {
            return -1;
        }
        return reply.readInt32();
    }
};

// Each test program includes this header once.
IMPLEMENT_META_INTERFACE(TestCallback, "zovk.test.ICallback")

class TestCallback : public android::BnInterface<ITestCallback> {
public:
    int32_t note(const android::String16& text) override {
        std::lock_guard<std::mutex> guard(lock_);
        notes_.push_back(android::String8(text).c_str());
        callers_.push_back(android::IPCThreadState::self()->getCallingPid());
        return int32_t(notes_.size());
    }
    std::vector<std::string> notes() const {
        std::lock_guard<std::mutex> guard(lock_);
        return notes_;
    }
    std::vector<pid_t> callers() const {
        std::lock_guard<std::mutex> guard(lock_);
        return callers_;
    }

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override {
        if (code != NOTE) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        if (!data.checkInterface(this)) {
            return android::BAD_TYPE;
        }
        android::String16 text;
        if (const android::status_t err = data.readString16(&text); err != android::OK) {
            return err;
        }
        return reply->writeInt32(note(text));
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> notes_;
    std::vector<pid_t> callers_;
};

// --- the test service ----------------------------------------------------------------------

class TestService : public android::BBinder {
public:
    static inline const android::String16 kDescriptor{"zovk.test.IService"};
    enum : uint32_t {
        ECHO = FIRST_CALL_TRANSACTION,  // string -> no exception, string, caller pid, caller uid
        CALL_BACK,                      // binder -> its note("from <pid>"), the binder back
        HOLD,                           // binder -> kept
        FORGET,                         // the kept binder dropped
        CALL_HELD,                      // -> note("held") on the kept binder
        SET_VALUE,                      // int32 (one-way in the tests) [, binder kept]
        GET_VALUE,                      // -> int32
        MAKE_OBJECT,                    // -> a new object that only the reply holds
        WHO,                            // -> our pid
    };

    const android::String16& getInterfaceDescriptor() const override { return kDescriptor; }

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override {
        using android::sp;
        switch (code) {
            case ECHO: {
                if (!data.enforceInterface(kDescriptor)) {
                    return android::BAD_TYPE;
                }
                const android::String16 text = data.readString16();
                reply->writeNoException();
                reply->writeString16(text);
                reply->writeInt32(android::IPCThreadState::self()->getCallingPid());
                return reply->writeInt32(int32_t(android::IPCThreadState::self()->getCallingUid()));
            }
            case CALL_BACK: {
                sp<android::IBinder> binder;
                if (const android::status_t err = data.readStrongBinder(&binder); err != android::OK) {
                    return err;
                }
                const sp<ITestCallback> callback = ITestCallback::asInterface(binder);
                reply->writeInt32(callback->note(android::String16(("from " + std::to_string(getpid())).c_str())));
                return reply->writeStrongBinder(binder);
            }
            case HOLD:
            case FORGET: {
                sp<android::IBinder> binder = code == HOLD ? data.readStrongBinder() : nullptr;
                std::lock_guard<std::mutex> guard(lock_);
                std::swap(held_, binder);
                return android::OK;
            }
            case CALL_HELD: {
                sp<android::IBinder> held;
                {
                    std::lock_guard<std::mutex> guard(lock_);
                    held = held_;
                }
                return reply->writeInt32(held ? ITestCallback::asInterface(held)->note(android::String16("held")) : -2);
            }
            case SET_VALUE: {
                value_ = data.readInt32();
                if (data.dataAvail() > 0) {
                    sp<android::IBinder> binder = data.readStrongBinder();
                    std::lock_guard<std::mutex> guard(lock_);
                    std::swap(held_, binder);
                }
                return android::OK;
            }
            case GET_VALUE:
                return reply->writeInt32(value_);
            case MAKE_OBJECT:
                return reply->writeStrongBinder(sp<android::IBinder>(new TestCallback()));
            case WHO:
                return reply->writeInt32(getpid());
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    std::mutex lock_;
    android::sp<android::IBinder> held_;
    std::atomic<int32_t> value_{0};
};

// A service in a child process. The child registers `make()` under `name` and serves until
// killed; the constructor returns once it is registered (or, with wait false, at once).
// `logPath` receives the child's stderr, where liblog writes.
class ChildService {
public:
    ChildService(const char* name, std::function<android::sp<android::IBinder>()> make, bool wait = true,
                 const std::string& logPath = "", int delayMs = 0) {
        int ready[2];
        if (pipe(ready) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            signal(SIGPIPE, SIG_IGN);  // nobody may be listening for the answer
            if (!logPath.empty()) {
                const int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                dup2(fd, STDERR_FILENO);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            const android::status_t err = android::defaultServiceManager()->addService(android::String16(name), make());
            const char answer = err == android::OK ? 'y' : 'n';
            (void)!write(ready[1], &answer, 1);
            close(ready[1]);
            android::IPCThreadState::self()->joinThreadPool();
            _exit(0);
        }
        close(ready[1]);
        if (wait) {
            pollfd p{ready[0], POLLIN, 0};
            char answer = 0;
            registered_ = poll(&p, 1, 10000) == 1 && read(ready[0], &answer, 1) == 1 && answer == 'y';
        }
        close(ready[0]);
    }
    ~ChildService() {
        if (pid_ > 0) {
            kill(pid_, SIGCONT);
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    ChildService(const ChildService&) = delete;
    ChildService& operator=(const ChildService&) = delete;

    bool registered() const { return registered_; }
    pid_t pid() const { return pid_; }
    // Signals are delivered asynchronously: a stop is waited for, so that no call made
    // after Signal(SIGSTOP) can still be answered.
    void Signal(int sig) const {
        kill(pid_, sig);
        if (sig == SIGSTOP) {
            int status = 0;
            waitpid(pid_, &status, WUNTRACED);
        }
    }
    void KillAndReap() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    bool registered_ = false;
};

}  // namespace zovk_test
