// Arbitrary bytes through everything that reads what a binder peer sends: as a parcel, every
// read at every position; as a frame, the transport's header decoder and the receiver's
// adoption of the binders a frame names, then the reads again. Nothing may crash, leak,
// allocate without bound or hang.
//
// Input: byte 0 even, the rest is a parcel; byte 0 odd, the rest is a frame (header, payload).
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <android/log.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>

#include "platform/host/binder/driver.h"
#include "platform/host/binder/transport.h"

namespace {

using android::Parcel;
using android::sp;
using android::String16;

void ReadEverything(const Parcel& parcel, size_t pos) {
    const String16 descriptor("com.veltra.pavune.IPavuneInterface");
    int32_t i32 = 0;
    uint32_t u32 = 0;
    int64_t i64 = 0;
    uint64_t u64 = 0;
    bool flag = false;
    String16 text;
    size_t len = 0;
    sp<android::IBinder> binder;
    uint8_t buffer[64];
    const auto at = [&](auto read) {
        parcel.setDataPosition(pos);
        read();
    };
    at([&] { parcel.readInt32(&i32); });
    at([&] { i32 = parcel.readInt32(); });
    at([&] { parcel.readUint32(&u32); });
    at([&] { parcel.readInt64(&i64); });
    at([&] { u64 = parcel.readUint64(); });
    at([&] { parcel.readBool(&flag); });
    at([&] { parcel.readString16(&text); });
    at([&] { text = parcel.readString16(); });
    at([&] {
        // Whatever comes back must be readable to its stated length.
        if (const char16_t* str = parcel.readString16Inplace(&len)) {
            String16 copy(str, len);
        }
    });
    at([&] { parcel.readStrongBinder(&binder); });
    at([&] { binder = parcel.readStrongBinder(); });
    at([&] {
        if (parcel.readNullableStrongBinder(&binder) == android::OK && binder != nullptr) {
            binder->isBinderAlive();
        }
    });
    at([&] { parcel.readExceptionCode(); });
    at([&] {
        android::binder::Status status;
        status.readFromParcel(parcel);
        status.toString8();
    });
    at([&] { parcel.enforceInterface(descriptor); });
    at([&] { parcel.read(buffer, std::min(parcel.dataAvail(), sizeof(buffer))); });
    at([&] { parcel.readInplace(7); });
}

void ReadEverywhere(const Parcel& parcel) {
    const size_t end = std::min<size_t>(parcel.dataSize() + 4, 512);
    for (size_t pos = 0; pos <= end; ++pos) {
        ReadEverything(parcel, pos);
    }
    // And a stream of mixed reads, each from where the last stopped.
    parcel.setDataPosition(0);
    while (parcel.dataAvail() > 0) {
        const size_t before = parcel.dataPosition();
        sp<android::IBinder> binder;
        String16 text;
        parcel.readString16(&text);
        parcel.readNullableStrongBinder(&binder);
        parcel.readInt32();
        if (parcel.dataPosition() == before) {
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Binders named by the input must find nobody to connect to, at once and without a trace.
    setenv("ZOVK_BINDER_DIR", ("/nonexistent/zovk-parcel-fuzzer-" + std::to_string(getpid())).c_str(), 1);
    setenv("ZOVK_BINDER_TIMEOUT_MS", "50", 1);
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool frame = (data[0] & 1) != 0;
    ++data;
    --size;
    Parcel parcel;
    if (!frame) {
        parcel.setData(data, size);
        ReadEverywhere(parcel);
        return 0;
    }
    using namespace android::hostbinder;
    if (size < kFrameHeaderSize) {
        return 0;
    }
    FrameHeader header;
    if (DecodeFrameHeader(data, &header) != nullptr || (header.kind != kCall && header.kind != kReply)) {
        return 0;
    }
    const size_t available = size - kFrameHeaderSize;
    if (available < header.length) {
        return 0;  // a truncated frame never gets past the transport
    }
    const std::vector<uint8_t> payload(data + kFrameHeaderSize, data + kFrameHeaderSize + header.length);
    const char* why = nullptr;
    if (ParcelAccess::adopt(&parcel, payload, header, &why) == android::OK) {
        ReadEverywhere(parcel);
    }
    return 0;
}
