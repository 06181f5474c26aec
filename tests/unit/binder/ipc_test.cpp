// Calls between processes: a service in a child process, found by name and called through
// its proxy; binders sent both ways; one-way calls; death of the service; a stopped service.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include "binder_test_support.h"

namespace zovk_test {
namespace {

using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using android::String8;
using android::wp;
using Clock = std::chrono::steady_clock;

sp<IBinder> Find(const char* name) {
    return android::defaultServiceManager()->checkService(String16(name));
}

sp<IBinder> MakeService() {
    return new TestService();
}

android::status_t Echo(const sp<IBinder>& service, const char* text, std::string* echoed = nullptr) {
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(TestService::kDescriptor);
    data.writeString16(String16(text));
    const android::status_t err = service->transact(TestService::ECHO, data, &reply);
    if (err == android::OK && echoed != nullptr) {
        reply.readExceptionCode();
        *echoed = String8(reply.readString16()).c_str();
    }
    return err;
}

int32_t Call(const sp<IBinder>& service, uint32_t code, android::status_t* err = nullptr) {
    Parcel data;
    Parcel reply;
    const android::status_t status = service->transact(code, data, &reply);
    if (err != nullptr) {
        *err = status;
    }
    return reply.readInt32();
}

bool HasNodeSocketOf(const BinderDir& dir, pid_t pid) {
    const std::string prefix = ".node-" + std::to_string(pid) + "-";
    for (const std::string& name : dir.Entries()) {
        if (name.rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

class Ipc : public testing::Test {
protected:
    // The echo service in a child process, found through the service manager; null if either fails.
    sp<IBinder> StartEcho() {
        echo_ = std::make_unique<ChildService>("echo", MakeService);
        EXPECT_TRUE(echo_->registered());
        return Find("echo");
    }

    BinderDir dir_;
    std::unique_ptr<ChildService> echo_;
};

// --- calls ---------------------------------------------------------------------------------

TEST_F(Ipc, ACallReachesTheServiceAndItsReplyComesBack) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    EXPECT_NE(service->remoteBinder(), nullptr);
    EXPECT_EQ(service->localBinder(), nullptr);

    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(TestService::kDescriptor);
    data.writeString16(String16("hello"));
    ASSERT_EQ(service->transact(TestService::ECHO, data, &reply), android::OK);
    EXPECT_EQ(reply.dataPosition(), 0u);
    EXPECT_EQ(reply.readExceptionCode(), 0);
    EXPECT_EQ(reply.readString16(), String16("hello"));
    EXPECT_EQ(reply.readInt32(), getpid()) << "the callee sees who called";
    EXPECT_EQ(reply.readInt32(), int32_t(getuid()));

    EXPECT_EQ(service->getInterfaceDescriptor(), TestService::kDescriptor);
    EXPECT_EQ(service->pingBinder(), android::OK);
    EXPECT_TRUE(service->isBinderAlive());
    EXPECT_EQ(Find("echo"), service) << "one proxy per remote object";
    EXPECT_EQ(Call(service, TestService::WHO), echo_->pid());
}

TEST_F(Ipc, TheCalleesStatusComesBackAsItIs) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    Parcel empty;
    Parcel reply;
    EXPECT_EQ(service->transact(IBinder::FIRST_CALL_TRANSACTION + 100, empty, &reply), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(service->transact(TestService::ECHO, empty, &reply), android::BAD_TYPE);
    Parcel wrongToken;
    wrongToken.writeInterfaceToken(ITestCallback::descriptor);
    EXPECT_EQ(service->transact(TestService::ECHO, wrongToken, &reply), android::BAD_TYPE);
    EXPECT_EQ(service->transact(TestService::ECHO, wrongToken, nullptr), android::BAD_TYPE) << "no reply wanted";
    EXPECT_EQ(Echo(service, "still here"), android::OK);
}

TEST_F(Ipc, ConcurrentCallersAreAllServed) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                std::string echoed;
                if (Echo(service, text.c_str(), &echoed) == android::OK && echoed == text) {
                    ++good;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good.load(), 100);
}

// --- the service directory -----------------------------------------------------------------

TEST_F(Ipc, ServicesAreFoundByNameOnly) {
    setenv("ZOVK_BINDER_TIMEOUT_MS", "300", 1);
    EXPECT_EQ(Find("absent"), nullptr);
    const auto start = Clock::now();
    EXPECT_EQ(android::defaultServiceManager()->getService(String16("absent")), nullptr);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10)) << "getService gives up";

    const auto manager = android::defaultServiceManager();
    EXPECT_EQ(manager->addService(String16("../escape"), MakeService()), android::BAD_VALUE);
    EXPECT_EQ(manager->addService(String16(".node-1-1"), MakeService()), android::BAD_VALUE);
    EXPECT_EQ(manager->addService(String16(""), MakeService()), android::BAD_VALUE);
    EXPECT_EQ(manager->addService(String16("null"), nullptr), android::INVALID_OPERATION);
    EXPECT_EQ(Find("../escape"), nullptr);
}

TEST_F(Ipc, GetServiceWaitsForAServiceThatIsStarting) {
    setenv("ZOVK_BINDER_TIMEOUT_MS", "5000", 1);
    ChildService late("late", MakeService, /*wait=*/false, "", /*delayMs=*/300);
    const sp<IBinder> service = android::defaultServiceManager()->getService(String16("late"));
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(Echo(service, "x"), android::OK);

    sp<ITestCallback> none;
    setenv("ZOVK_BINDER_TIMEOUT_MS", "100", 1);
    EXPECT_EQ(android::getService(String16("absent"), &none), android::NAME_NOT_FOUND);
}

TEST_F(Ipc, AServiceOfThisProcessIsFoundAsTheLocalObject) {
    const sp<IBinder> local = MakeService();
    ASSERT_EQ(android::defaultServiceManager()->addService(String16("mine"), local), android::OK);
    EXPECT_EQ(Find("mine"), local);
}

TEST_F(Ipc, ANameGoesToItsLatestRegistration) {
    ChildService first("shared", MakeService);
    ASSERT_TRUE(first.registered());
    const sp<IBinder> old = Find("shared");
    ChildService second("shared", MakeService);
    ASSERT_TRUE(second.registered());
    const sp<IBinder> latest = Find("shared");
    ASSERT_NE(latest, nullptr);
    EXPECT_EQ(Call(latest, TestService::WHO), second.pid());
    EXPECT_EQ(Call(old, TestService::WHO), first.pid()) << "a proxy keeps its object";
}

// --- strong binders ------------------------------------------------------------------------

TEST_F(Ipc, ACallbackIsCalledBackAndComesHomeAsItself) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    const sp<TestCallback> callback = new TestCallback();

    Parcel data;
    Parcel reply;
    data.writeStrongBinder(android::IInterface::asBinder(callback));
    ASSERT_EQ(service->transact(TestService::CALL_BACK, data, &reply), android::OK);
    EXPECT_EQ(reply.readInt32(), 1);
    const sp<IBinder> back = reply.readStrongBinder();
    EXPECT_EQ(back.get(), static_cast<IBinder*>(callback.get()));
    EXPECT_EQ(ITestCallback::asInterface(back).get(), static_cast<ITestCallback*>(callback.get()));

    EXPECT_EQ(callback->notes(), std::vector<std::string>{"from " + std::to_string(echo_->pid())});
    EXPECT_EQ(callback->callers(), std::vector<pid_t>{echo_->pid()});
    EXPECT_TRUE(HasNodeSocketOf(dir_, getpid())) << "the callback got a socket of its own";
}

TEST_F(Ipc, ARemoteReferenceKeepsTheObjectAliveAndItsSocketGoesWithIt) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    sp<TestCallback> callback = new TestCallback();
    const wp<TestCallback> weak = callback;
    {
        Parcel data;
        Parcel reply;
        data.writeStrongBinder(android::IInterface::asBinder(callback));
        ASSERT_EQ(service->transact(TestService::HOLD, data, &reply), android::OK);
    }
    callback.clear();  // only the service holds it now
    ASSERT_NE(weak.promote(), nullptr);
    EXPECT_EQ(Call(service, TestService::CALL_HELD), 1);
    EXPECT_TRUE(HasNodeSocketOf(dir_, getpid()));

    Call(service, TestService::FORGET);
    EXPECT_TRUE(Eventually([&] { return weak.promote() == nullptr; }));
    EXPECT_TRUE(Eventually([&] { return !HasNodeSocketOf(dir_, getpid()); }));
}

TEST_F(Ipc, AnObjectReturnedInAReplyOutlivesTheCalleesReference) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    Parcel data;
    Parcel reply;
    ASSERT_EQ(service->transact(TestService::MAKE_OBJECT, data, &reply), android::OK);
    // The callee dropped its own reference as soon as the reply was written.
    const sp<IBinder> object = reply.readStrongBinder();
    ASSERT_NE(object, nullptr);
    ASSERT_NE(object->remoteBinder(), nullptr);
    Echo(service, "another call on the same connection");
    EXPECT_EQ(object->pingBinder(), android::OK);
    EXPECT_EQ(object->getInterfaceDescriptor(), ITestCallback::descriptor);
    EXPECT_EQ(ITestCallback::asInterface(object)->note(String16("x")), 1);
}

TEST_F(Ipc, AOneWayCallCarryingABinderKeepsItAlive) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    sp<TestCallback> callback = new TestCallback();
    const wp<TestCallback> weak = callback;
    {
        Parcel data;
        data.writeInt32(5);
        data.writeStrongBinder(android::IInterface::asBinder(callback));
        ASSERT_EQ(service->transact(TestService::SET_VALUE, data, nullptr, IBinder::FLAG_ONEWAY), android::OK);
    }
    callback.clear();
    EXPECT_EQ(Call(service, TestService::GET_VALUE), 5);
    EXPECT_EQ(Call(service, TestService::CALL_HELD), 1);
    EXPECT_NE(weak.promote(), nullptr);
}

// --- one-way calls -------------------------------------------------------------------------

TEST_F(Ipc, OneWayCallsDoNotWaitForTheCallee) {
    setenv("ZOVK_BINDER_TIMEOUT_MS", "500", 1);
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    ASSERT_EQ(Echo(service, "open a connection"), android::OK);

    echo_->Signal(SIGSTOP);  // a two-way call now would time out
    Parcel data;
    data.writeInt32(42);
    EXPECT_EQ(service->transact(TestService::SET_VALUE, data, nullptr, IBinder::FLAG_ONEWAY), android::OK);
    echo_->Signal(SIGCONT);
    EXPECT_EQ(Call(service, TestService::GET_VALUE), 42) << "the one-way call arrived, in order";
}

// --- death ---------------------------------------------------------------------------------

class Recipient : public IBinder::DeathRecipient {
public:
    void binderDied(const wp<IBinder>& who) override {
        std::lock_guard<std::mutex> guard(lock_);
        who_ = who;
        thread_ = std::this_thread::get_id();
        ++deaths_;
        died_.notify_all();
    }
    bool WaitForDeath() {
        std::unique_lock<std::mutex> lock(lock_);
        return died_.wait_for(lock, std::chrono::seconds(10), [this] { return deaths_ > 0; });
    }
    int deaths() const {
        std::lock_guard<std::mutex> guard(lock_);
        return deaths_;
    }
    wp<IBinder> who() const {
        std::lock_guard<std::mutex> guard(lock_);
        return who_;
    }
    std::thread::id thread() const {
        std::lock_guard<std::mutex> guard(lock_);
        return thread_;
    }

private:
    mutable std::mutex lock_;
    std::condition_variable died_;
    wp<IBinder> who_;
    std::thread::id thread_;
    int deaths_ = 0;
};

TEST_F(Ipc, DeathOfTheServiceReachesItsRecipientsOnce) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    const sp<Recipient> linked = new Recipient();
    const sp<Recipient> unlinked = new Recipient();
    int cookie = 0;
    ASSERT_EQ(service->linkToDeath(linked, &cookie), android::OK);
    ASSERT_EQ(service->linkToDeath(unlinked), android::OK);
    EXPECT_EQ(service->unlinkToDeath(unlinked, &cookie), android::NAME_NOT_FOUND) << "cookies must match";
    wp<IBinder::DeathRecipient> out;
    EXPECT_EQ(service->unlinkToDeath(unlinked, nullptr, 0, &out), android::OK);
    EXPECT_EQ(out.promote(), unlinked);
    EXPECT_EQ(service->linkToDeath(nullptr), android::BAD_VALUE);

    echo_->KillAndReap();
    ASSERT_TRUE(linked->WaitForDeath());
    EXPECT_EQ(linked->who().promote(), service);
    EXPECT_NE(linked->thread(), std::this_thread::get_id()) << "delivered on a binder thread";

    EXPECT_FALSE(service->isBinderAlive());
    EXPECT_EQ(Echo(service, "anyone?"), android::DEAD_OBJECT);
    EXPECT_EQ(service->pingBinder(), android::DEAD_OBJECT);
    EXPECT_EQ(service->linkToDeath(linked), android::DEAD_OBJECT);
    EXPECT_EQ(service->unlinkToDeath(linked, &cookie), android::DEAD_OBJECT);
    EXPECT_EQ(linked->deaths(), 1);
    EXPECT_EQ(unlinked->deaths(), 0);
}

TEST_F(Ipc, ARecipientOnlyTheBinderHoldsLapsesQuietly) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    ASSERT_EQ(service->linkToDeath(sp<Recipient>(new Recipient())), android::OK);  // dropped at once
    const sp<Recipient> kept = new Recipient();
    ASSERT_EQ(service->linkToDeath(kept), android::OK);
    echo_->KillAndReap();
    EXPECT_TRUE(kept->WaitForDeath());
}

TEST_F(Ipc, CallsToADeadServiceFailWithoutAnyRecipient) {
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    ASSERT_EQ(Echo(service, "alive"), android::OK);
    echo_->KillAndReap();
    EXPECT_EQ(Echo(service, "dead"), android::DEAD_OBJECT);
    EXPECT_FALSE(service->isBinderAlive());
    EXPECT_EQ(Echo(service, "still dead"), android::DEAD_OBJECT);
    EXPECT_EQ(Find("echo"), nullptr) << "its socket is left, but nobody answers there";
}

// --- a service that does not answer ---------------------------------------------------------

TEST_F(Ipc, AStoppedServiceTimesOutInsteadOfHanging) {
    setenv("ZOVK_BINDER_TIMEOUT_MS", "300", 1);
    const sp<IBinder> service = StartEcho();
    ASSERT_NE(service, nullptr);
    ASSERT_EQ(Echo(service, "open a connection"), android::OK);

    echo_->Signal(SIGSTOP);
    auto start = Clock::now();
    EXPECT_EQ(Echo(service, "on the open connection"), android::TIMED_OUT);
    EXPECT_EQ(Echo(service, "on a new connection"), android::TIMED_OUT);
    EXPECT_EQ(Find("echo"), nullptr);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));

    // With its listen queue full, even connecting would block.
    std::vector<int> fillers;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/echo", dir_.path().c_str());
    for (int i = 0; i < 1000; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
            EXPECT_EQ(errno, EAGAIN);
            close(fd);
            break;
        }
        fillers.push_back(fd);
    }
    start = Clock::now();
    EXPECT_EQ(Find("echo"), nullptr);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    for (const int fd : fillers) {
        close(fd);
    }

    // Awake again: a loaded machine may take longer than the short bound to answer.
    setenv("ZOVK_BINDER_TIMEOUT_MS", "10000", 1);
    echo_->Signal(SIGCONT);
    EXPECT_TRUE(service->isBinderAlive()) << "a slow service is not a dead one";
    EXPECT_EQ(Echo(service, "awake"), android::OK);
}

}  // namespace
}  // namespace zovk_test
