#pragma once

// Host stand-in for libbinder's Parcel, laid out byte for byte as libbinder lays it out:
// 4-byte aligned little-endian values; String16 as int32 length in UTF-16 units, the units,
// a 0 unit and zero padding to 4 bytes (a null string is the length -1 alone); an interface
// token as int32 strict-mode policy (0x80000000: gather, no policy), int32 work source (-1,
// unset), int32 header 'SYST' and the descriptor.
//
// A strong binder is libbinder's 24-byte flat object followed by an int32 stability
// (12, system, for an object; 0 for null):
//   uint32 type    BINDER_TYPE_BINDER ('s','b','*',0x85) when the writer owns the object (or
//                  for null), BINDER_TYPE_HANDLE ('s','h','*',0x85) when it forwards a proxy
//   uint32 flags   0x113 for an owned object, 0x13 otherwise (libbinder's values)
//   uint64 binder  node id: owner pid << 32 | serial within the owner; 0 for null.
//                  The object's socket is ".node-<pid>-<serial>" in the runtime directory
//   uint64 cookie  incarnation: a random number the owner process chose at start-up, so
//                  that a node id outliving its process (pid reuse) never reaches a stranger
// Readers do not trust the type: the node id and incarnation alone name the object. Reading
// an object back in its own process yields the local BBinder itself.
#include <stddef.h>
#include <stdint.h>

#include <vector>

#include <binder/IBinder.h>
#include <utils/Errors.h>
#include <utils/String16.h>

namespace android {

class IPCThreadState;

namespace hostbinder {
struct ParcelAccess;
}

class Parcel {
public:
    Parcel();
    ~Parcel();

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;

    status_t setDataSize(size_t size);
    // Positions past the end are kept: reads there fail with NOT_ENOUGH_DATA.
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);
    // Copies the bytes in and rewinds; drops the references of binders written before.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    // For RPC binders on Android; nothing to record on the host.
    void markForBinder(const sp<IBinder>& binder);

    status_t writeInterfaceToken(const String16& interface);
    status_t writeInterfaceToken(const char16_t* str, size_t len);
    // False unless the header is 'SYST' and the descriptor matches exactly.
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool enforceInterface(const char16_t* interface, size_t len, IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder* binder) const;

    status_t write(const void* data, size_t len);
    void* writeInplace(size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeBool(bool val);
    status_t writeString16(const String16& str);
    status_t writeString16(const char16_t* str, size_t len);  // null str writes a null string
    // Publishes a local object on first use (its socket, the binder threads).
    status_t writeStrongBinder(const sp<IBinder>& val);
    status_t writeNoException();

    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    status_t readInt32(int32_t* pArg) const;
    int32_t readInt32() const;  // 0 on failure
    status_t readUint32(uint32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readInt64(int64_t* pArg) const;
    int64_t readInt64() const;
    status_t readUint64(uint64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readBool(bool* pArg) const;
    bool readBool() const;
    String16 readString16() const;  // empty on failure
    // UNEXPECTED_NULL for a null string, NOT_ENOUGH_DATA past the end, BAD_VALUE for a bad
    // length or a missing terminator; the position moves only on success.
    status_t readString16(String16* pArg) const;
    const char16_t* readString16Inplace(size_t* outLen) const;
    sp<IBinder> readStrongBinder() const;
    // UNEXPECTED_NULL for a null binder; readNullableStrongBinder accepts it.
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;
    // The exception code of a reply written by binder::Status.
    int32_t readExceptionCode() const;

private:
    friend struct hostbinder::ParcelAccess;
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    template <typename T>
    status_t writeAligned(T val);
    template <typename T>
    status_t readAligned(T* pArg) const;

    std::vector<uint8_t> mData;
    mutable size_t mPos = 0;
    // Where each strong binder starts, and a reference keeping it alive as long as the parcel
    // (the object written, or the one a received frame named).
    std::vector<uint32_t> mObjectOffsets;
    std::vector<sp<IBinder>> mObjects;
};

}  // namespace android
