// Parcel and binder::Status: the bytes libbinder writes, reads that fail cleanly on short or
// malformed data, and strong binders written and read inside one process.
#include <stdint.h>
#include <string.h>

#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#include "binder_test_support.h"
#include "platform/host/binder/transport.h"

namespace zovk_test {
namespace {

using namespace android;
using android::binder::Status;
using android::hostbinder::GetU64;

Bytes BytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

Parcel* Load(Parcel* parcel, const Bytes& bytes) {
    parcel->setData(bytes.data(), bytes.size());
    return parcel;
}

// The UTF-16 units of an ASCII text, without length or terminator.
Bytes Units(const char* ascii) {
    Bytes bytes;
    for (; *ascii != '\0'; ++ascii) {
        bytes.insert(bytes.end(), {uint8_t(*ascii), 0});
    }
    return bytes;
}

// A flat binder object as libbinder writes it, with its stability.
Bytes Flat(uint32_t type, uint32_t flags, uint64_t node, uint64_t incarnation, uint32_t stability) {
    return Le(type, 4) + Le(flags, 4) + Le(node, 8) + Le(incarnation, 8) + Le(stability, 4);
}

constexpr uint32_t kTypeBinder = 0x73622a85;  // 's','b','*',0x85
constexpr uint32_t kTypeHandle = 0x73682a85;  // 's','h','*',0x85
const char kPavune[] = "com.veltra.pavune.IPavuneInterface";

TEST(ParcelLayout, WritesAreLibbinderBytes) {
    struct Case {
        const char* what;
        std::function<void(Parcel*)> write;
        Bytes expected;
    };
    const uint8_t odd[] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    const Case cases[] = {
        {"interface token", [](Parcel* p) { p->writeInterfaceToken(String16(kPavune)); },
         Bytes{0, 0, 0, 0x80,  // strict-mode policy: gather, no policy
               0xff, 0xff, 0xff, 0xff,  // work source: unset
               'T', 'S', 'Y', 'S', 34, 0, 0, 0} +
             Units(kPavune) + Bytes{0, 0, 0, 0}},  // terminator and padding
        {"string", [](Parcel* p) { p->writeString16(String16("com.miHoYo.hkrpg")); },
         Bytes{16, 0, 0, 0} + Units("com.miHoYo.hkrpg") + Bytes{0, 0, 0, 0}},
        {"null, empty and short strings",
         [](Parcel* p) {
             p->writeString16(nullptr, 0);
             p->writeString16(String16());
             p->writeString16(u"ab", 2);
         },
         {0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}},
        {"values, little-endian and zero-padded",
         [&](Parcel* p) {
             p->writeInt32(-2);
             p->writeUint64(0x0102030405060708ull);
             p->writeBool(true);
             p->write(odd, sizeof(odd));
         },
         {0xfe, 0xff, 0xff, 0xff, 8, 7, 6, 5, 4, 3, 2, 1, 1, 0, 0, 0, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0, 0, 0}},
        {"null binder", [](Parcel* p) { p->writeStrongBinder(nullptr); }, Flat(kTypeBinder, 0x13, 0, 0, 0)},
        {"status ok", [](Parcel* p) { Status::ok().writeToParcel(p); }, {0, 0, 0, 0}},
        {"exception with message, empty stack trace",
         [](Parcel* p) { Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad").writeToParcel(p); },
         {0xfd, 0xff, 0xff, 0xff, 3, 0, 0, 0, 'b', 0, 'a', 0, 'd', 0, 0, 0, 0, 0, 0, 0}},
        {"service-specific error",
         [](Parcel* p) { Status::fromServiceSpecificError(42, String8("x")).writeToParcel(p); },
         {0xf8, 0xff, 0xff, 0xff, 1, 0, 0, 0, 'x', 0, 0, 0, 0, 0, 0, 0, 42, 0, 0, 0}},
        {"parcelable exception", [](Parcel* p) { Status::fromExceptionCode(Status::EX_PARCELABLE).writeToParcel(p); },
         Bytes{0xf7, 0xff, 0xff, 0xff} + Bytes(16, 0)},
    };
    for (const Case& c : cases) {
        Parcel parcel;
        c.write(&parcel);
        EXPECT_EQ(BytesOf(parcel), c.expected) << c.what;
    }
}

TEST(ParcelReads, ShortOrMalformedDataFailsWithoutMovingThePosition) {
    Parcel parcel;
    int32_t value = 0;
    EXPECT_EQ(Load(&parcel, {7, 0, 0, 0})->readInt32(&value), android::OK);
    EXPECT_EQ(parcel.readInt32(&value), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(parcel.dataPosition(), 4u);
    EXPECT_EQ(Load(&parcel, {1, 2, 3})->readInt32(&value), android::NOT_ENOUGH_DATA);
    uint8_t out[3];
    EXPECT_EQ(parcel.read(out, sizeof(out)), android::NOT_ENOUGH_DATA) << "padded size goes past the end";

    const std::pair<Bytes, android::status_t> strings[] = {
        {{0xff, 0xff, 0xff, 0xff}, android::UNEXPECTED_NULL},
        {{0xfe, 0xff, 0xff, 0xff, 0, 0, 0, 0}, android::BAD_VALUE},  // length below -1
        {{0xff, 0xff, 0xff, 0x7f, 0, 0, 0, 0}, android::BAD_VALUE},  // huge length
        {{9, 0, 0, 0, 'a', 0, 0, 0}, android::NOT_ENOUGH_DATA},      // longer than the data
        {{1, 0, 0, 0, 'a', 0, 'b', 0}, android::BAD_VALUE},          // no terminator
        {{1, 0}, android::NOT_ENOUGH_DATA},                          // no length
    };
    for (const auto& [bytes, expected] : strings) {
        String16 text(u"previous");
        EXPECT_EQ(Load(&parcel, bytes)->readString16(&text), expected) << bytes.size() << " bytes";
        EXPECT_EQ(text.size(), 0u);
        EXPECT_EQ(parcel.dataPosition(), 0u);
        size_t len = 99;
        EXPECT_EQ(parcel.readString16Inplace(&len), nullptr);
        EXPECT_EQ(len, 0u);
    }

    Parcel token;
    token.writeInterfaceToken(String16(kPavune));
    const Bytes bytes = BytesOf(token);
    Bytes vendor = bytes;
    memcpy(vendor.data() + 8, "RDNV", 4);  // another partition's header
    EXPECT_TRUE(Load(&parcel, bytes)->enforceInterface(String16(kPavune)));
    for (const char* other : {"com.veltra.pavune.IPavuneInterfac", "com.veltra.pavune.IPavuneInterfacf"}) {
        EXPECT_FALSE(Load(&parcel, bytes)->enforceInterface(String16(other))) << other;
    }
    for (const Bytes& bad : {vendor, Bytes(bytes.begin(), bytes.begin() + 20), Bytes()}) {
        EXPECT_FALSE(Load(&parcel, bad)->enforceInterface(String16(kPavune))) << bad.size() << " bytes";
    }
}

// --- binder::Status ---------------------------------------------------------------------------

TEST(StatusReply, ReadsBackWhatItWritesAndConsumesItExactlyAndOverwritesAReply) {
    const Status statuses[] = {
        Status::ok(),
        Status::fromExceptionCode(Status::EX_SECURITY, "denied"),
        Status::fromServiceSpecificError(-7, String8("custom")),
    };
    for (const Status& written : statuses) {
        Parcel reply;
        ASSERT_EQ(written.writeToParcel(&reply), android::OK);
        reply.writeInt32(99);  // what the reply carries after the status
        reply.setDataPosition(0);
        Status read = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "stale");
        ASSERT_EQ(read.readFromParcel(reply), android::OK) << written.toString8().c_str();
        EXPECT_EQ(read.exceptionCode(), written.exceptionCode());
        EXPECT_EQ(read.exceptionMessage(), written.exceptionMessage());
        EXPECT_EQ(read.serviceSpecificErrorCode(), written.serviceSpecificErrorCode());
        EXPECT_EQ(reply.readInt32(), 99) << written.toString8().c_str();
    }

    // A transaction failure is returned, not written; writing over a reply replaces it.
    Parcel reply;
    EXPECT_EQ(Status::fromStatusT(android::DEAD_OBJECT).writeToParcel(&reply), android::DEAD_OBJECT);
    EXPECT_EQ(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED).writeToParcel(&reply),
              android::FAILED_TRANSACTION);
    EXPECT_EQ(reply.dataSize(), 0u);

    reply.writeInt32(0);
    reply.writeString16(String16("half"));
    ASSERT_EQ(Status::fromExceptionCode(Status::EX_NULL_POINTER).writeOverParcel(&reply), android::OK);
    reply.setDataPosition(0);
    EXPECT_EQ(reply.readExceptionCode(), Status::EX_NULL_POINTER);
    EXPECT_EQ(reply.dataAvail(), 0u);
}

TEST(StatusReply, MalformedRepliesBecomeTransactionErrors) {
    struct Case {
        const char* what;
        std::vector<int32_t> words;
        android::status_t expected;
    };
    const Case cases[] = {
        {"empty", {}, android::NOT_ENOUGH_DATA},
        {"no message", {Status::EX_SECURITY}, android::NOT_ENOUGH_DATA},
        {"null message", {Status::EX_SECURITY, -1, 0}, android::UNEXPECTED_NULL},
        {"no stack trace size", {Status::EX_SECURITY, 0, 0}, android::NOT_ENOUGH_DATA},
        {"stack trace too long", {Status::EX_SECURITY, 0, 0, 8, 0}, android::UNKNOWN_ERROR},
        {"no service-specific code", {Status::EX_SERVICE_SPECIFIC, 0, 0, 0}, android::NOT_ENOUGH_DATA},
        {"parcelable blob too long", {Status::EX_PARCELABLE, 0, 0, 0, 100}, android::UNKNOWN_ERROR},
    };
    for (const Case& c : cases) {
        Parcel reply;
        for (const int32_t word : c.words) {
            reply.writeInt32(word);
        }
        reply.setDataPosition(0);
        Status status;
        EXPECT_EQ(status.readFromParcel(reply), c.expected) << c.what;
        EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED) << c.what;
        EXPECT_EQ(status.transactionError(), c.expected) << c.what;
        reply.setDataPosition(0);
        EXPECT_EQ(reply.readExceptionCode(), Status::EX_TRANSACTION_FAILED) << c.what;
    }
}

// --- strong binders in one process ------------------------------------------------------------

class LocalBinders : public testing::Test {
protected:
    BinderDir dir_;
};

TEST_F(LocalBinders, ALocalObjectIsWrittenWithItsNodeAndReadBackAsItselfAndForgeriesAreRefused) {
    const sp<IBinder> object = new BBinder();
    Parcel parcel;
    ASSERT_EQ(parcel.writeStrongBinder(object), android::OK);
    const Bytes written = BytesOf(parcel);
    ASSERT_EQ(written.size(), 28u);
    const uint64_t node = GetU64(written.data() + 8), incarnation = GetU64(written.data() + 16);
    EXPECT_EQ(written, Flat(kTypeBinder, 0x113, node, incarnation, 0x0c));
    EXPECT_EQ(node >> 32, uint64_t(getpid()));
    EXPECT_NE(uint32_t(node), 0u);
    EXPECT_NE(incarnation, 0u);
    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readStrongBinder(), object);
    sp<IBinder> binder = object;
    EXPECT_EQ(Load(&parcel, Flat(kTypeBinder, 0x13, 0, 0, 0))->readStrongBinder(&binder), android::UNEXPECTED_NULL);
    EXPECT_EQ(binder, nullptr);
    binder = object;
    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readNullableStrongBinder(&binder), android::OK) << "null is read only as nullable";
    EXPECT_EQ(binder, nullptr);

    struct Case {
        const char* what;
        Bytes bytes;
        android::status_t expected;
    };
    const Case cases[] = {
        {"unknown type", Flat(0x73662a85, 0x113, node, incarnation, 0x0c), android::BAD_TYPE},
        {"null with stability", Flat(kTypeBinder, 0x13, 0, 0, 0x0c), android::BAD_VALUE},
        {"handle 0", Flat(kTypeHandle, 0x13, 0, 0, 0), android::BAD_VALUE},
        {"undeclared stability", Flat(kTypeBinder, 0x113, node, incarnation, 0), android::BAD_TYPE},
        {"no incarnation", Flat(kTypeBinder, 0x113, node, 0, 0x0c), android::BAD_VALUE},
        {"serial 0", Flat(kTypeBinder, 0x113, node & ~0xffffffffull, incarnation, 0x0c), android::BAD_VALUE},
        {"our object, long gone", Flat(kTypeBinder, 0x113, node + 1000, incarnation, 0x0c), android::DEAD_OBJECT},
        {"truncated", Bytes(written.begin(), written.begin() + 24), android::NOT_ENOUGH_DATA},
    };
    for (const Case& c : cases) {
        binder.clear();
        EXPECT_EQ(Load(&parcel, c.bytes)->readNullableStrongBinder(&binder), c.expected) << c.what;
        EXPECT_EQ(binder, nullptr) << c.what;
        EXPECT_EQ(parcel.dataPosition(), 0u) << c.what;
    }
}

// As the registration parcel holds the layer's callback until it is freed.
TEST_F(LocalBinders, AParcelKeepsItsObjectsAliveUntilItsBytesNoLongerHoldThem) {
    sp<IBinder> object = new TestService();
    const android::wp<IBinder> weak = object;
    Parcel parcel;
    parcel.writeStrongBinder(object);
    object.clear();
    ASSERT_NE(weak.promote(), nullptr);
    parcel.setDataPosition(0);
    parcel.writeInt32(1);
    EXPECT_EQ(weak.promote(), nullptr);
}

}  // namespace
}  // namespace zovk_test
