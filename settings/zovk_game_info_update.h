#pragma once

// The callback interface through which the game service pushes in-game state into the
// layer: one transaction, sendToZoGL(text).
#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/String16.h>

namespace com::veltra::pavune {

class IGameInfoUpdate : public android::IInterface {
public:
    // Never destroyed: binder threads check it on every incoming call, during exit too.
    static const android::String16& descriptor;
    static constexpr uint32_t TRANSACTION_sendToZoGL = android::IBinder::FIRST_CALL_TRANSACTION;

    // The local object when `binder` is one, else a proxy on it; null for null.
    static android::sp<IGameInfoUpdate> asInterface(const android::sp<android::IBinder>& binder);
    static bool setDefaultImpl(android::sp<IGameInfoUpdate> impl);
    static const android::sp<IGameInfoUpdate>& getDefaultImpl();

    virtual const android::String16& getInterfaceDescriptor() const;
    virtual android::binder::Status sendToZoGL(const android::String16& info) = 0;
};

class BpGameInfoUpdate : public android::BpInterface<IGameInfoUpdate> {
public:
    explicit BpGameInfoUpdate(const android::sp<android::IBinder>& remote);
    android::binder::Status sendToZoGL(const android::String16& info) override;
};

// The layer's own end: incoming text goes to the application information monitor.
class BnGameInfoUpdate : public android::BnInterface<IGameInfoUpdate> {
public:
    BnGameInfoUpdate();
    android::binder::Status sendToZoGL(const android::String16& info) override;
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
};

}  // namespace com::veltra::pavune
