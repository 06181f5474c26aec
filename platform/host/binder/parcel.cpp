#include <binder/Parcel.h>

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <new>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Status.h>
#include <utils/String8.h>

#include "driver.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "parcels are little-endian, as the host must be");

namespace android {

using hostbinder::Driver;
using hostbinder::GetU32;
using hostbinder::GetU64;
using hostbinder::kFlatBinderSize;
using hostbinder::PutU32;
using hostbinder::PutU64;

namespace {

constexpr int32_t kStrictModePenaltyGather = INT32_MIN;  // 1 << 31, no policy bits
constexpr int32_t kUnsetWorkSource = -1;
constexpr int32_t kHeader = B_PACK_CHARS('S', 'Y', 'S', 'T');

constexpr uint32_t kTypeBinder = B_PACK_CHARS('s', 'b', '*', 0x85);
constexpr uint32_t kTypeHandle = B_PACK_CHARS('s', 'h', '*', 0x85);
constexpr uint32_t kSchedBits = 0x13;  // SCHED_NORMAL at priority 19, as libbinder sets them
constexpr uint32_t kAcceptsFds = 0x100;

constexpr int32_t kStabilityUndeclared = 0;
constexpr int32_t kStabilityVendor = 0x03;
constexpr int32_t kStabilitySystem = 0x0c;
constexpr int32_t kStabilityVintf = 0x3f;

constexpr size_t kMaxParcelSize = INT32_MAX;

size_t Pad4(size_t size) {
    return (size + 3) & ~size_t(3);
}

// The String16 at the position, leaving the position alone unless it succeeds.
status_t ReadString16At(const Parcel& parcel, const char16_t** str, size_t* len) {
    const size_t start = parcel.dataPosition();
    int32_t size = 0;
    if (const status_t err = parcel.readInt32(&size); err != OK) {
        return err;
    }
    status_t err = OK;
    if (size == -1) {
        err = UNEXPECTED_NULL;
    } else if (size < 0 || size >= INT32_MAX / 2) {
        err = BAD_VALUE;
    } else if (parcel.dataAvail() < Pad4((size_t(size) + 1) * sizeof(char16_t))) {
        err = NOT_ENOUGH_DATA;
    } else {
        const auto* units = static_cast<const uint8_t*>(parcel.readInplace((size_t(size) + 1) * sizeof(char16_t)));
        char16_t terminator = 1;
        memcpy(&terminator, units + size_t(size) * sizeof(char16_t), sizeof(terminator));
        if (terminator != 0) {
            err = BAD_VALUE;
        } else {
            *str = reinterpret_cast<const char16_t*>(units);
            *len = size_t(size);
            return OK;
        }
    }
    parcel.setDataPosition(start);
    return err;
}

status_t Unflatten(const uint8_t* flat, sp<IBinder>* out) {
    const uint32_t type = GetU32(flat);
    const uint64_t node = GetU64(flat + 8);
    const uint64_t incarnation = GetU64(flat + 16);
    const int32_t stability = int32_t(GetU32(flat + 24));
    if (type != kTypeBinder && type != kTypeHandle) {
        return BAD_TYPE;
    }
    if (node == 0) {
        // Handle 0 would be Android's context manager, which the host does not have.
        if (type != kTypeBinder || incarnation != 0 || stability != kStabilityUndeclared) {
            return BAD_VALUE;
        }
        *out = nullptr;
        return OK;
    }
    if (stability != kStabilityVendor && stability != kStabilitySystem && stability != kStabilityVintf) {
        return BAD_TYPE;
    }
    if (incarnation == 0 || uint32_t(node) == 0) {
        return BAD_VALUE;
    }
    status_t err = OK;
    *out = Driver::get().objectFor(node, incarnation, &err);
    return err;
}

}  // namespace

Parcel::Parcel() = default;
Parcel::~Parcel() = default;

const uint8_t* Parcel::data() const {
    return mData.data();
}

size_t Parcel::dataSize() const {
    return mData.size();
}

size_t Parcel::dataAvail() const {
    return mPos < mData.size() ? mData.size() - mPos : 0;
}

size_t Parcel::dataPosition() const {
    return mPos;
}

size_t Parcel::dataCapacity() const {
    return mData.capacity();
}

status_t Parcel::setDataSize(size_t size) {
    if (size > kMaxParcelSize) {
        return BAD_VALUE;
    }
    try {
        mData.resize(size);
    } catch (const std::bad_alloc&) {
        return NO_MEMORY;
    }
    mPos = std::min(mPos, size);
    while (!mObjectOffsets.empty() && mObjectOffsets.back() + kFlatBinderSize > size) {
        mObjectOffsets.pop_back();
        mObjects.pop_back();
    }
    return OK;
}

void Parcel::setDataPosition(size_t pos) const {
    mPos = pos;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > kMaxParcelSize) {
        return BAD_VALUE;
    }
    try {
        mData.reserve(size);
    } catch (const std::bad_alloc&) {
        return NO_MEMORY;
    }
    return OK;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxParcelSize || (buffer == nullptr && len != 0)) {
        return BAD_VALUE;
    }
    freeData();
    try {
        mData.assign(buffer, buffer + len);
    } catch (const std::bad_alloc&) {
        return NO_MEMORY;
    }
    return OK;
}

void Parcel::freeData() {
    std::vector<uint8_t>().swap(mData);
    mPos = 0;
    mObjectOffsets.clear();
    mObjects.clear();
}

void Parcel::markForBinder(const sp<IBinder>& /*binder*/) {}

// --- writing -------------------------------------------------------------------------------

void* Parcel::writeInplace(size_t len) {
    if (len > kMaxParcelSize) {
        return nullptr;
    }
    const size_t padded = Pad4(len);
    if (mPos > kMaxParcelSize - padded) {
        return nullptr;
    }
    const size_t end = mPos + padded;
    // Bytes written over a binder leave it a binder no longer.
    if (!mObjectOffsets.empty() && mPos < mObjectOffsets.back() + kFlatBinderSize) {
        for (size_t i = mObjectOffsets.size(); i-- > 0;) {
            if (mObjectOffsets[i] < end && mPos < mObjectOffsets[i] + kFlatBinderSize) {
                mObjectOffsets.erase(mObjectOffsets.begin() + ptrdiff_t(i));
                mObjects.erase(mObjects.begin() + ptrdiff_t(i));
            }
        }
    }
    if (end > mData.size()) {
        try {
            mData.resize(end);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    uint8_t* out = mData.data() + mPos;
    memset(out + len, 0, padded - len);
    mPos = end;
    return out;
}

status_t Parcel::write(const void* data, size_t len) {
    void* out = writeInplace(len);
    if (out == nullptr) {
        return NO_MEMORY;
    }
    if (len != 0) {
        memcpy(out, data, len);
    }
    return OK;
}

template <typename T>
status_t Parcel::writeAligned(T val) {
    return write(&val, sizeof(val));
}

status_t Parcel::writeInt32(int32_t val) {
    return writeAligned(val);
}

status_t Parcel::writeUint32(uint32_t val) {
    return writeAligned(val);
}

status_t Parcel::writeInt64(int64_t val) {
    return writeAligned(val);
}

status_t Parcel::writeUint64(uint64_t val) {
    return writeAligned(val);
}

status_t Parcel::writeBool(bool val) {
    return writeInt32(int32_t(val));
}

status_t Parcel::writeNoException() {
    return writeInt32(binder::Status::EX_NONE);
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) {
        return writeInt32(-1);
    }
    if (len >= INT32_MAX / 2) {
        return BAD_VALUE;
    }
    const size_t start = mPos;
    if (const status_t err = writeInt32(int32_t(len)); err != OK) {
        return err;
    }
    auto* out = static_cast<uint8_t*>(writeInplace((len + 1) * sizeof(char16_t)));
    if (out == nullptr) {
        mPos = start;
        return NO_MEMORY;
    }
    memcpy(out, str, len * sizeof(char16_t));
    memset(out + len * sizeof(char16_t), 0, sizeof(char16_t));
    return OK;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    return writeInterfaceToken(interface.string(), interface.size());
}

status_t Parcel::writeInterfaceToken(const char16_t* str, size_t len) {
    status_t err = writeInt32(kStrictModePenaltyGather);
    if (err == OK) {
        err = writeInt32(kUnsetWorkSource);
    }
    if (err == OK) {
        err = writeInt32(kHeader);
    }
    return err == OK ? writeString16(str, len) : err;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    uint32_t type = kTypeBinder;
    uint32_t flags = kSchedBits;
    uint64_t node = 0;
    uint64_t incarnation = 0;
    int32_t stability = kStabilityUndeclared;
    if (val != nullptr) {
        if (BBinder* local = val->localBinder()) {
            if (const status_t err = Driver::get().publish(local, &node); err != OK) {
                return err;
            }
            flags |= kAcceptsFds;
            incarnation = Driver::get().incarnation();
        } else if (BpBinder* proxy = val->remoteBinder()) {
            type = kTypeHandle;
            node = proxy->nodeId();
            incarnation = proxy->incarnation();
        } else {
            return BAD_TYPE;
        }
        stability = kStabilitySystem;
    }
    uint8_t flat[kFlatBinderSize];
    PutU32(flat, type);
    PutU32(flat + 4, flags);
    PutU64(flat + 8, node);
    PutU64(flat + 16, incarnation);
    PutU32(flat + 24, uint32_t(stability));
    const size_t offset = mPos;
    if (const status_t err = write(flat, sizeof(flat)); err != OK || val == nullptr) {
        return err;
    }
    const auto at = std::lower_bound(mObjectOffsets.begin(), mObjectOffsets.end(), uint32_t(offset));
    mObjects.insert(mObjects.begin() + (at - mObjectOffsets.begin()), val);
    mObjectOffsets.insert(at, uint32_t(offset));
    return OK;
}

// --- reading -------------------------------------------------------------------------------

const void* Parcel::readInplace(size_t len) const {
    if (len > kMaxParcelSize) {
        return nullptr;
    }
    const size_t padded = Pad4(len);
    if (mPos > mData.size() || mData.size() - mPos < padded) {
        return nullptr;
    }
    const void* data = mData.data() + mPos;
    mPos += padded;
    return data;
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* data = readInplace(len);
    if (data == nullptr) {
        return NOT_ENOUGH_DATA;
    }
    if (len != 0) {
        memcpy(outData, data, len);
    }
    return OK;
}

template <typename T>
status_t Parcel::readAligned(T* pArg) const {
    if (mPos > mData.size() || mData.size() - mPos < sizeof(T)) {
        return NOT_ENOUGH_DATA;
    }
    memcpy(pArg, mData.data() + mPos, sizeof(T));
    mPos += sizeof(T);
    return OK;
}

status_t Parcel::readInt32(int32_t* pArg) const {
    return readAligned(pArg);
}

int32_t Parcel::readInt32() const {
    int32_t value = 0;
    return readAligned(&value) == OK ? value : 0;
}

status_t Parcel::readUint32(uint32_t* pArg) const {
    return readAligned(pArg);
}

uint32_t Parcel::readUint32() const {
    uint32_t value = 0;
    return readAligned(&value) == OK ? value : 0;
}

status_t Parcel::readInt64(int64_t* pArg) const {
    return readAligned(pArg);
}

int64_t Parcel::readInt64() const {
    int64_t value = 0;
    return readAligned(&value) == OK ? value : 0;
}

status_t Parcel::readUint64(uint64_t* pArg) const {
    return readAligned(pArg);
}

uint64_t Parcel::readUint64() const {
    uint64_t value = 0;
    return readAligned(&value) == OK ? value : 0;
}

status_t Parcel::readBool(bool* pArg) const {
    int32_t value = 0;
    const status_t err = readInt32(&value);
    if (err == OK) {
        *pArg = value != 0;
    }
    return err;
}

bool Parcel::readBool() const {
    return readInt32() != 0;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    const char16_t* str = nullptr;
    *outLen = 0;
    return ReadString16At(*this, &str, outLen) == OK ? str : nullptr;
}

status_t Parcel::readString16(String16* pArg) const {
    const char16_t* str = nullptr;
    size_t len = 0;
    const status_t err = ReadString16At(*this, &str, &len);
    if (err != OK) {
        *pArg = String16();
        return err;
    }
    return pArg->setTo(str, len);
}

String16 Parcel::readString16() const {
    String16 str;
    readString16(&str);
    return str;
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* threadState) const {
    return enforceInterface(interface.string(), interface.size(), threadState);
}

bool Parcel::enforceInterface(const char16_t* interface, size_t len, IPCThreadState* /*threadState*/) const {
    int32_t policy = 0;
    int32_t workSource = 0;
    int32_t header = 0;
    if (readInt32(&policy) != OK || readInt32(&workSource) != OK || readInt32(&header) != OK) {
        return false;
    }
    if (header != kHeader) {
        HB_LOG(WARN, "binder interface token: expected header 0x%x, found 0x%x", unsigned(kHeader), unsigned(header));
        return false;
    }
    const char16_t* str = nullptr;
    size_t strLen = 0;
    if (ReadString16At(*this, &str, &strLen) != OK) {
        return false;
    }
    if (strLen == len && (len == 0 || memcmp(str, interface, len * sizeof(char16_t)) == 0)) {
        return true;
    }
    HB_LOG(WARN, "binder interface token: expected '%s', found '%s'", String8(interface, len).c_str(),
           String8(String16(str, strLen)).c_str());
    return false;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return binder != nullptr && enforceInterface(binder->getInterfaceDescriptor());
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const {
    const size_t start = mPos;
    const auto* flat = static_cast<const uint8_t*>(readInplace(kFlatBinderSize));
    if (flat == nullptr) {
        return NOT_ENOUGH_DATA;
    }
    sp<IBinder> binder;
    if (const status_t err = Unflatten(flat, &binder); err != OK) {
        mPos = start;
        return err;
    }
    *val = binder;
    return OK;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    const status_t err = readNullableStrongBinder(val);
    return err == OK && *val == nullptr ? UNEXPECTED_NULL : err;
}

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> binder;
    readNullableStrongBinder(&binder);
    return binder;
}

int32_t Parcel::readExceptionCode() const {
    binder::Status status;
    status.readFromParcel(*this);
    return status.exceptionCode();
}

namespace hostbinder {

status_t ParcelAccess::adopt(Parcel* parcel, const std::vector<uint8_t>& payload, const FrameHeader& header,
                             const char** why) {
    const size_t dataSize = header.dataSize();  // the decoder checked objects against length
    if (payload.size() != header.length) {
        *why = "frame length mismatch";
        return BAD_VALUE;
    }
    if (const status_t err = parcel->setData(payload.data(), dataSize); err != OK) {
        *why = "parcel too large";
        return err;
    }
    size_t end = 0;
    for (size_t i = 0; i < header.objects; ++i) {
        const uint32_t offset = GetU32(payload.data() + dataSize + 4 * i);
        if (offset % 4 != 0 || offset < end || offset > dataSize - kFlatBinderSize) {
            *why = "bad object offset";
            parcel->freeData();
            return BAD_VALUE;
        }
        parcel->setDataPosition(offset);
        sp<IBinder> object;
        const status_t err = parcel->readNullableStrongBinder(&object);
        if (err != OK && err != DEAD_OBJECT) {  // a dead object reads as null: not the peer's fault
            *why = "bad object";
            parcel->freeData();
            return BAD_VALUE;
        }
        parcel->mObjectOffsets.push_back(offset);
        parcel->mObjects.push_back(object);
        end = offset + kFlatBinderSize;
    }
    parcel->setDataPosition(0);
    return OK;
}

}  // namespace hostbinder
}  // namespace android
