#include <unistd.h>

#include <algorithm>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <binder/Stability.h>

#include "driver.h"

namespace android {

using hostbinder::Deadline;
using hostbinder::Driver;
using hostbinder::FrameHeader;
using hostbinder::ParcelAccess;

namespace {

constexpr size_t kMaxIdleConnections = 2;

const String16& EmptyDescriptor() {
    static const String16 sEmpty;
    return sEmpty;
}

}  // namespace

// --- IBinder -------------------------------------------------------------------------------

IBinder::IBinder() = default;
IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) {
    return nullptr;
}

BBinder* IBinder::localBinder() {
    return nullptr;
}

BpBinder* IBinder::remoteBinder() {
    return nullptr;
}

// --- BBinder -------------------------------------------------------------------------------

BBinder::BBinder() = default;

BBinder::~BBinder() {
    if (const uint64_t node = mNode.load(); node != 0) {
        Driver::get().unpublish(node);
    }
}

const String16& BBinder::getInterfaceDescriptor() const {
    return EmptyDescriptor();
}

bool BBinder::isBinderAlive() const {
    return true;
}

status_t BBinder::pingBinder() {
    return OK;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t err = code == PING_TRANSACTION ? pingBinder() : onTransact(code, data, reply, flags);
    if (reply != nullptr) {
        reply->setDataPosition(0);  // for callers in the same process
    }
    return err;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& /*data*/, Parcel* reply, uint32_t /*flags*/) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            return reply != nullptr ? reply->writeString16(getInterfaceDescriptor()) : BAD_VALUE;
        case PING_TRANSACTION:
            return OK;
        default:
            return UNKNOWN_TRANSACTION;
    }
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/, uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/, uint32_t /*flags*/,
                                wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

BBinder* BBinder::localBinder() {
    return this;
}

// --- BpRefBase -----------------------------------------------------------------------------

BpRefBase::BpRefBase(const sp<IBinder>& remote) : mRemote(remote) {}
BpRefBase::~BpRefBase() = default;

// --- BpBinder ------------------------------------------------------------------------------

BpBinder::BpBinder(uint64_t node, uint64_t incarnation, int refFd)
    : mNode(node), mIncarnation(incarnation), mRefFd(refFd), mAlive(refFd >= 0) {}

BpBinder::~BpBinder() {
    Driver& driver = Driver::get();
    driver.forget(this);
    if (mWatch != 0) {
        driver.unwatch(mWatch);
    }
    for (const int fd : mIdle) {
        close(fd);
    }
    if (mRefFd >= 0) {
        close(mRefFd);  // the owner sees our reference go
    }
}

BpBinder* BpBinder::remoteBinder() {
    return this;
}

bool BpBinder::isBinderAlive() const {
    return mAlive.load();
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mHaveDescriptor) {
            return mDescriptor;
        }
    }
    Parcel data;
    Parcel reply;
    String16 descriptor;
    if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply) != OK ||
        reply.readString16(&descriptor) != OK) {
        return EmptyDescriptor();
    }
    std::lock_guard<std::mutex> guard(mLock);
    if (!mHaveDescriptor) {  // never changed once set: references handed out stay valid
        mDescriptor = descriptor;
        mHaveDescriptor = true;
    }
    return mDescriptor;
}

int BpBinder::takeConnection(const hostbinder::Deadline& deadline, status_t* err) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mIdle.empty()) {
            const int fd = mIdle.back();
            mIdle.pop_back();
            return fd;
        }
    }
    return Driver::get().connect(mNode, mIncarnation, deadline, err);
}

void BpBinder::returnConnection(int fd) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mIdle.size() < kMaxIdleConnections) {
            mIdle.push_back(fd);
            return;
        }
    }
    close(fd);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!mAlive.load()) {
        return DEAD_OBJECT;
    }
    const Deadline deadline(hostbinder::CallTimeoutMs());
    status_t err = OK;
    const int fd = takeConnection(deadline, &err);
    if (fd < 0) {
        if (err == DEAD_OBJECT) {
            mAlive.store(false);
        }
        return err;
    }
    // A one-way call still waits for the callee to take its references to the binders in
    // it: the caller may drop its own as soon as we return.
    const bool oneway = (flags & FLAG_ONEWAY) != 0;
    const bool ack = oneway && !ParcelAccess::offsets(data).empty();
    const uint32_t frameFlags = (flags & ~hostbinder::kFrameAckObjects) | (ack ? hostbinder::kFrameAckObjects : 0);
    err = SendFrame(fd, FrameHeader{hostbinder::kCall, code, frameFlags}, data.data(), data.dataSize(),
                    ParcelAccess::offsets(data), deadline);
    FrameHeader header;
    const char* why = nullptr;
    if (err == OK && (!oneway || ack)) {
        std::vector<uint8_t> payload;
        err = RecvFrame(fd, &header, &payload, deadline, &why);
        if (err == OK && header.kind != hostbinder::kReply) {
            why = "unexpected frame kind";
            err = BAD_VALUE;
        }
        if (err == OK && reply != nullptr && !oneway) {
            err = ParcelAccess::adopt(reply, payload, header, &why);
        }
    }
    if (err != OK) {
        close(fd);
        if (err == BAD_VALUE) {
            HB_LOG(ERROR, "binder: %s in a reply, connection dropped", why);
            return FAILED_TRANSACTION;
        }
        if (err == DEAD_OBJECT) {
            mAlive.store(false);
        }
        return err;
    }
    returnConnection(fd);
    return oneway ? OK : status_t(int32_t(header.code));
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
    if (recipient == nullptr) {
        return BAD_VALUE;
    }
    std::lock_guard<std::mutex> guard(mLock);
    if (mObitsSent || !mAlive.load()) {
        return DEAD_OBJECT;
    }
    if (mWatch == 0) {
        mWatch = Driver::get().watch(this, mRefFd);
        if (mWatch == 0) {
            return INVALID_OPERATION;
        }
    }
    mObituaries.push_back(Obituary{recipient, cookie, flags});
    return OK;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t /*flags*/,
                                 wp<DeathRecipient>* outRecipient) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mObitsSent) {
        return DEAD_OBJECT;
    }
    const auto it = std::find_if(mObituaries.begin(), mObituaries.end(), [&](const Obituary& obit) {
        return obit.recipient == recipient && obit.cookie == cookie;
    });
    if (it == mObituaries.end()) {
        return NAME_NOT_FOUND;
    }
    if (outRecipient != nullptr) {
        *outRecipient = it->recipient;
    }
    mObituaries.erase(it);
    if (mObituaries.empty() && mWatch != 0) {
        Driver::get().unwatch(mWatch);
        mWatch = 0;
    }
    return OK;
}

void BpBinder::sendObituary() {
    mAlive.store(false);
    std::vector<Obituary> obits;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mObitsSent) {
            return;
        }
        mObitsSent = true;
        obits.swap(mObituaries);
        mWatch = 0;  // the driver dropped the watch when it fired
    }
    for (const Obituary& obit : obits) {
        if (const sp<DeathRecipient> recipient = obit.recipient.promote()) {
            recipient->binderDied(wp<IBinder>(this));
        }
    }
}

// --- IInterface ----------------------------------------------------------------------------

IInterface::IInterface() = default;
IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    return iface != nullptr ? const_cast<IInterface*>(iface)->onAsBinder() : nullptr;
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    return asBinder(iface.get());
}

// --- Stability -----------------------------------------------------------------------------

namespace internal {

void Stability::markCompilationUnit(IBinder* /*binder*/) {}
void Stability::markVintf(IBinder* /*binder*/) {}

}  // namespace internal
}  // namespace android
