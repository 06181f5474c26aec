// The conversation the layer has with the game service, with both sides written the way the
// layer's binder code is written (hand-built parcels out, an AIDL-style callback stub in), so
// that the API subset it needs is known to fit and to work between processes.
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/Stability.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include "binder_test_support.h"

namespace zovk_test {
namespace {

using android::BBinder;
using android::IBinder;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;

const String16 kPavune("com.veltra.pavune.IPavuneInterface");

class IGameInfoUpdate : public android::IInterface {
public:
    DECLARE_META_INTERFACE(GameInfoUpdate)
    virtual Status sendToZoGL(const String16& info) = 0;
};

class BpGameInfoUpdate : public android::BpInterface<IGameInfoUpdate> {
public:
    explicit BpGameInfoUpdate(const sp<IBinder>& remote) : BpInterface<IGameInfoUpdate>(remote) {}
    Status sendToZoGL(const String16& info) override {
        Parcel data;
        Parcel reply;
        Status status;
        data.markForBinder(remoteStrong());
        status_t err = data.writeInterfaceToken(getInterfaceDescriptor());
        if (err == OK) {
            err = data.writeString16(info);
        }
        if (err == OK) {
            err = remote()->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply, 0);
        }
        if (err == android::UNKNOWN_TRANSACTION && getDefaultImpl() != nullptr) {
            return getDefaultImpl()->sendToZoGL(info);
        }
        if (err == OK) {
            err = status.readFromParcel(reply);
        }
        if (err != OK) {
            status.setFromStatusT(err);
        }
        return status;
    }
};

IMPLEMENT_META_INTERFACE(GameInfoUpdate, "com.veltra.pavune.IGameInfoUpdate")

class BnGameInfoUpdate : public android::BnInterface<IGameInfoUpdate> {
public:
    BnGameInfoUpdate() { android::internal::Stability::markCompilationUnit(this); }

    Status sendToZoGL(const String16& info) override {
        std::lock_guard<std::mutex> guard(lock_);
        records_.push_back(android::String8(info).c_str());
        return Status::ok();
    }
    std::vector<std::string> records() const {
        std::lock_guard<std::mutex> guard(lock_);
        return records_;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        status_t result = OK;
        if (code == IBinder::FIRST_CALL_TRANSACTION) {
            String16 info;
            if (!data.checkInterface(this)) {
                result = android::BAD_TYPE;
            } else if ((result = data.readString16(&info)) == OK) {
                result = sendToZoGL(info).writeToParcel(reply);
            }
        } else {
            result = BBinder::onTransact(code, data, reply, flags);
        }
        if (result == android::UNEXPECTED_NULL) {
            result = Status::fromExceptionCode(Status::EX_NULL_POINTER).writeOverParcel(reply);
        }
        return result;
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> records_;
};

// The game service's side: the configuration fetch (30) and the callback registration (35),
// after which it pushes a record and probes the callback the ways a careless service might.
class FakeGameService : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != 30 && code != 35) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        if (!data.enforceInterface(kPavune)) {
            return android::BAD_TYPE;
        }
        const String16 name = data.readString16();
        if (code == 30) {
            reply->writeNoException();
            const std::string json = "{\"configs\":{},\"for\":\"" + std::string(android::String8(name).c_str()) + "\"}";
            return reply->writeString16(String16(json.c_str()));
        }
        callback_ = data.readStrongBinder();
        const sp<IGameInfoUpdate> update = IGameInfoUpdate::asInterface(callback_);
        if (update == nullptr) {
            return android::BAD_VALUE;
        }
        reply->writeInt32(update->sendToZoGL(String16("1 com.miHoYo.hkrpg 12")).exceptionCode());
        // A null record: the stub answers with EX_NULL_POINTER.
        Parcel nullRecord;
        Parcel answer;
        nullRecord.writeInterfaceToken(IGameInfoUpdate::descriptor);
        nullRecord.writeString16(nullptr, 0);
        reply->writeInt32(callback_->transact(IBinder::FIRST_CALL_TRANSACTION, nullRecord, &answer));
        reply->writeInt32(answer.readExceptionCode());
        // Code 2 is nobody's: the platform's default handling answers.
        Parcel empty;
        reply->writeInt32(callback_->transact(IBinder::FIRST_CALL_TRANSACTION + 1, empty, &answer));
        return reply->writeString16(callback_->getInterfaceDescriptor());
    }

private:
    sp<IBinder> callback_;  // kept, as the game service keeps its callbacks
};

class Died : public IBinder::DeathRecipient {
public:
    void binderDied(const android::wp<IBinder>& /*who*/) override {}
};

TEST(GameService, TheLayersConversation) {
    BinderDir dir;
    ChildService service("veltra.pavune", [] { return sp<IBinder>(new FakeGameService()); });
    ASSERT_TRUE(service.registered());

    // The configuration fetch.
    const sp<IBinder> remote = android::defaultServiceManager()->checkService(String16("veltra.pavune"));
    ASSERT_NE(remote, nullptr);
    {
        const sp<IBinder::DeathRecipient> recipient = new Died();
        EXPECT_EQ(remote->linkToDeath(recipient, nullptr, 0), OK);
    }  // only the binder's weak reference is left: the link lapses with it
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(kPavune);
    data.writeString16(String16("com.miHoYo.hkrpg"));
    ASSERT_EQ(remote->transact(30, data, &reply, 0), OK);
    EXPECT_EQ(reply.readExceptionCode(), 0);
    EXPECT_EQ(std::string(android::String8(reply.readString16()).c_str()),
              "{\"configs\":{},\"for\":\"com.miHoYo.hkrpg\"}");

    // The callback registration, after which the layer drops its own reference.
    sp<BnGameInfoUpdate> stub = new BnGameInfoUpdate();
    const android::wp<BnGameInfoUpdate> weakStub = stub;
    Parcel registration;
    Parcel answer;
    registration.writeInterfaceToken(kPavune);
    registration.writeString16(String16("com.miHoYo.hkrpg_zovk"));
    registration.writeStrongBinder(android::IInterface::asBinder(stub));
    ASSERT_EQ(remote->transact(35, registration, &answer, 0), OK);
    registration.freeData();
    EXPECT_EQ(answer.readInt32(), Status::EX_NONE);
    EXPECT_EQ(answer.readInt32(), OK);
    EXPECT_EQ(answer.readInt32(), Status::EX_NULL_POINTER);
    EXPECT_EQ(answer.readInt32(), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(answer.readString16(), IGameInfoUpdate::descriptor);
    EXPECT_EQ(stub->records(), std::vector<std::string>{"1 com.miHoYo.hkrpg 12"});
    stub.clear();
    EXPECT_NE(weakStub.promote(), nullptr) << "the stub lives as long as the game service holds it";

    // A proxy on a binder that does not know code 1 falls back to the default implementation.
    const sp<IGameInfoUpdate> proxy = new BpGameInfoUpdate(remote);
    EXPECT_EQ(proxy->sendToZoGL(String16("x")).transactionError(), android::UNKNOWN_TRANSACTION);
    const sp<BnGameInfoUpdate> fallback = new BnGameInfoUpdate();
    ASSERT_TRUE(IGameInfoUpdate::setDefaultImpl(fallback));
    EXPECT_TRUE(proxy->sendToZoGL(String16("y")).isOk());
    EXPECT_EQ(fallback->records(), std::vector<std::string>{"y"});
}

}  // namespace
}  // namespace zovk_test
