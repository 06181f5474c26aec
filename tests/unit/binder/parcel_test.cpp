// Parcel: the byte layout libbinder uses, reads that fail cleanly on short or malformed data,
// and strong binders written and read inside one process.
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#include "binder_test_support.h"

namespace zovk_test {
namespace {

using android::BBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using Bytes = std::vector<uint8_t>;

Bytes BytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

Parcel* Load(Parcel* parcel, const Bytes& bytes) {
    parcel->setData(bytes.data(), bytes.size());
    return parcel;
}

void AppendU32(Bytes* bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes->push_back(uint8_t(value >> (8 * i)));
    }
}

void AppendU64(Bytes* bytes, uint64_t value) {
    AppendU32(bytes, uint32_t(value));
    AppendU32(bytes, uint32_t(value >> 32));
}

// A flat binder object as libbinder writes it, with its stability.
Bytes Flat(uint32_t type, uint32_t flags, uint64_t node, uint64_t incarnation, uint32_t stability) {
    Bytes bytes;
    AppendU32(&bytes, type);
    AppendU32(&bytes, flags);
    AppendU64(&bytes, node);
    AppendU64(&bytes, incarnation);
    AppendU32(&bytes, stability);
    return bytes;
}

constexpr uint32_t kTypeBinder = 0x73622a85;  // 's','b','*',0x85
constexpr uint32_t kTypeHandle = 0x73682a85;  // 's','h','*',0x85

// --- layout --------------------------------------------------------------------------------

TEST(ParcelLayout, InterfaceTokenAndStringAreLibbinderBytes) {
    Parcel parcel;
    ASSERT_EQ(parcel.writeInterfaceToken(String16("com.veltra.pavune.IPavuneInterface")), android::OK);
    ASSERT_EQ(parcel.writeString16(String16("com.miHoYo.hkrpg")), android::OK);
    const Bytes expected = {
        0x00, 0x00, 0x00, 0x80,  // strict-mode policy: PENALTY_GATHER, no policy
        0xff, 0xff, 0xff, 0xff,  // work source: unset
        0x54, 0x53, 0x59, 0x53,  // header 'SYST'
        0x22, 0x00, 0x00, 0x00,  // 34 units
        'c', 0, 'o', 0, 'm', 0, '.', 0, 'v', 0, 'e', 0, 'l', 0, 't', 0, 'r', 0, 'a', 0, '.', 0, 'p', 0,
        'a', 0, 'v', 0, 'u', 0, 'n', 0, 'e', 0, '.', 0, 'I', 0, 'P', 0, 'a', 0, 'v', 0, 'u', 0, 'n', 0,
        'e', 0, 'I', 0, 'n', 0, 't', 0, 'e', 0, 'r', 0, 'f', 0, 'a', 0, 'c', 0, 'e', 0,
        0x00, 0x00, 0x00, 0x00,  // terminator and padding
        0x10, 0x00, 0x00, 0x00,  // 16 units
        'c', 0, 'o', 0, 'm', 0, '.', 0, 'm', 0, 'i', 0, 'H', 0, 'o', 0, 'Y', 0, 'o', 0, '.', 0, 'h', 0,
        'k', 0, 'r', 0, 'p', 0, 'g', 0,
        0x00, 0x00, 0x00, 0x00,  // terminator and padding
    };
    EXPECT_EQ(BytesOf(parcel), expected);
}

TEST(ParcelLayout, NullAndEmptyStrings) {
    Parcel parcel;
    ASSERT_EQ(parcel.writeString16(nullptr, 0), android::OK);
    ASSERT_EQ(parcel.writeString16(String16()), android::OK);
    ASSERT_EQ(parcel.writeString16(u"ab", 2), android::OK);
    EXPECT_EQ(BytesOf(parcel), (Bytes{0xff, 0xff, 0xff, 0xff,  // null: length -1 alone
                                      0, 0, 0, 0, 0, 0, 0, 0,  // empty: length, terminator, padding
                                      2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}));

    parcel.setDataPosition(0);
    String16 text(u"previous");
    EXPECT_EQ(parcel.readString16(&text), android::UNEXPECTED_NULL);
    EXPECT_EQ(text.size(), 0u);
    EXPECT_EQ(parcel.dataPosition(), 0u) << "a failed read leaves the position";
    parcel.setDataPosition(4);
    EXPECT_EQ(parcel.readString16(&text), android::OK);
    EXPECT_EQ(text.size(), 0u);
    EXPECT_EQ(parcel.readString16(), String16(u"ab"));
    EXPECT_EQ(parcel.dataAvail(), 0u);
}

TEST(ParcelLayout, ValuesAreLittleEndianAndPaddedWithZeros) {
    Parcel parcel;
    parcel.writeInt32(-2);
    parcel.writeUint64(0x0102030405060708ull);
    parcel.writeBool(true);
    const uint8_t odd[] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    parcel.write(odd, sizeof(odd));
    EXPECT_EQ(BytesOf(parcel), (Bytes{0xfe, 0xff, 0xff, 0xff, 8, 7, 6, 5, 4, 3, 2, 1, 1, 0, 0, 0, 0xaa, 0xbb, 0xcc,
                                      0xdd, 0xee, 0, 0, 0}));
}

// --- reads ---------------------------------------------------------------------------------

TEST(ParcelReads, BothInt32FormsAndThePastTheEndCase) {
    Parcel parcel;
    parcel.writeInt32(7);
    parcel.writeInt32(-9);
    parcel.setDataPosition(0);
    int32_t value = 0;
    EXPECT_EQ(parcel.readInt32(&value), android::OK);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(parcel.readInt32(), -9);
    EXPECT_EQ(parcel.readInt32(&value), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(parcel.readInt32(), 0);
    EXPECT_EQ(parcel.dataPosition(), 8u);

    parcel.setDataPosition(1000);  // kept, but nothing can be read there
    EXPECT_EQ(parcel.readInt32(&value), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(parcel.dataAvail(), 0u);

    const uint8_t three[] = {1, 2, 3};
    parcel.setData(three, sizeof(three));
    EXPECT_EQ(parcel.readInt32(&value), android::NOT_ENOUGH_DATA);
    uint8_t out[3];
    EXPECT_EQ(parcel.read(out, sizeof(out)), android::NOT_ENOUGH_DATA) << "padded size goes past the end";
}

TEST(ParcelReads, MalformedStringsFailWithoutMovingThePosition) {
    struct Case {
        const char* what;
        Bytes bytes;
        android::status_t expected;
    };
    const Case cases[] = {
        {"length below -1", {0xfe, 0xff, 0xff, 0xff, 0, 0, 0, 0}, android::BAD_VALUE},
        {"huge length", {0xff, 0xff, 0xff, 0x7f, 0, 0, 0, 0}, android::BAD_VALUE},
        {"longer than the data", {9, 0, 0, 0, 'a', 0, 0, 0}, android::NOT_ENOUGH_DATA},
        {"no terminator", {1, 0, 0, 0, 'a', 0, 'b', 0}, android::BAD_VALUE},
        {"no length", {1, 0}, android::NOT_ENOUGH_DATA},
    };
    for (const Case& c : cases) {
        Parcel parcel;
        String16 text;
        EXPECT_EQ(Load(&parcel, c.bytes)->readString16(&text), c.expected) << c.what;
        EXPECT_EQ(parcel.dataPosition(), 0u) << c.what;
        size_t len = 99;
        EXPECT_EQ(parcel.readString16Inplace(&len), nullptr) << c.what;
        EXPECT_EQ(len, 0u) << c.what;
    }
}

TEST(ParcelReads, InterfaceTokenIsEnforcedExactly) {
    const String16 descriptor("com.veltra.pavune.IPavuneInterface");
    Parcel good;
    good.writeInterfaceToken(descriptor);
    good.setDataPosition(0);
    EXPECT_TRUE(good.enforceInterface(descriptor));
    good.setDataPosition(0);
    EXPECT_FALSE(good.enforceInterface(String16("com.veltra.pavune.IPavuneInterfac")));
    good.setDataPosition(0);
    EXPECT_FALSE(good.enforceInterface(String16("com.veltra.pavune.IPavuneInterfacf")));

    const Bytes bytes = BytesOf(good);
    Bytes vendor = bytes;
    memcpy(vendor.data() + 8, "RDNV", 4);  // another partition's header
    Parcel parcel;
    EXPECT_FALSE(Load(&parcel, vendor)->enforceInterface(descriptor));
    EXPECT_FALSE(Load(&parcel, Bytes(bytes.begin(), bytes.begin() + 20))->enforceInterface(descriptor));
    EXPECT_FALSE(Load(&parcel, {})->enforceInterface(descriptor));
}

TEST(ParcelReads, ExceptionCodeOfAReply) {
    Parcel ok;
    ok.writeNoException();
    ok.writeString16(String16("{}"));
    ok.setDataPosition(0);
    EXPECT_EQ(ok.readExceptionCode(), 0);
    EXPECT_EQ(ok.readString16(), String16("{}"));

    Parcel empty;
    EXPECT_EQ(empty.readExceptionCode(), android::binder::Status::EX_TRANSACTION_FAILED);
}

TEST(ParcelReads, SetDataReplacesAndFreeDataEmpties) {
    Parcel parcel;
    parcel.writeInt32(1);
    const uint8_t bytes[] = {5, 0, 0, 0};
    ASSERT_EQ(parcel.setData(bytes, sizeof(bytes)), android::OK);
    EXPECT_EQ(parcel.dataPosition(), 0u);
    EXPECT_EQ(parcel.readInt32(), 5);
    EXPECT_EQ(parcel.setData(nullptr, 4), android::BAD_VALUE);
    parcel.freeData();
    EXPECT_EQ(parcel.dataSize(), 0u);
    EXPECT_EQ(parcel.dataPosition(), 0u);
    EXPECT_EQ(parcel.readInt32(), 0);
}

// --- strong binders in one process ---------------------------------------------------------

class LocalBinders : public testing::Test {
protected:
    BinderDir dir_;
};

TEST_F(LocalBinders, NullBinderIsTheZeroObject) {
    Parcel parcel;
    ASSERT_EQ(parcel.writeStrongBinder(nullptr), android::OK);
    EXPECT_EQ(BytesOf(parcel), Flat(kTypeBinder, 0x13, 0, 0, 0));
    parcel.setDataPosition(0);
    sp<IBinder> binder = new BBinder();
    EXPECT_EQ(parcel.readStrongBinder(&binder), android::UNEXPECTED_NULL);
    EXPECT_EQ(binder, nullptr);
    parcel.setDataPosition(0);
    binder = new BBinder();
    EXPECT_EQ(parcel.readNullableStrongBinder(&binder), android::OK);
    EXPECT_EQ(binder, nullptr);
}

TEST_F(LocalBinders, LocalObjectIsWrittenWithItsNodeAndReadBackAsItself) {
    const sp<IBinder> object = new BBinder();
    Parcel parcel;
    ASSERT_EQ(parcel.writeStrongBinder(object), android::OK);
    ASSERT_EQ(parcel.dataSize(), 28u);
    uint32_t head[2];
    uint64_t node = 0;
    uint64_t incarnation = 0;
    int32_t stability = 0;
    memcpy(head, parcel.data(), 8);
    memcpy(&node, parcel.data() + 8, 8);
    memcpy(&incarnation, parcel.data() + 16, 8);
    memcpy(&stability, parcel.data() + 24, 4);
    EXPECT_EQ(head[0], kTypeBinder);
    EXPECT_EQ(head[1], 0x113u);
    EXPECT_EQ(node >> 32, uint64_t(getpid()));
    EXPECT_NE(uint32_t(node), 0u);
    EXPECT_NE(incarnation, 0u);
    EXPECT_EQ(stability, 0x0c);

    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readStrongBinder(), object);
    // Written twice, the same object keeps its node.
    Parcel again;
    again.writeStrongBinder(object);
    EXPECT_EQ(BytesOf(again), BytesOf(parcel));
}

TEST_F(LocalBinders, MalformedObjectsAreRefused) {
    const sp<IBinder> object = new BBinder();
    Parcel written;
    written.writeStrongBinder(object);
    const Bytes bytes = BytesOf(written);
    uint64_t node = 0;
    uint64_t incarnation = 0;
    memcpy(&node, written.data() + 8, 8);
    memcpy(&incarnation, written.data() + 16, 8);

    struct Case {
        const char* what;
        Bytes bytes;
        android::status_t expected;
    };
    const Case cases[] = {
        {"unknown type", Flat(0x73662a85, 0x113, node, incarnation, 0x0c), android::BAD_TYPE},
        {"null with stability", Flat(kTypeBinder, 0x13, 0, 0, 0x0c), android::BAD_VALUE},
        {"null with a cookie", Flat(kTypeBinder, 0x13, 0, 1, 0), android::BAD_VALUE},
        {"handle 0", Flat(kTypeHandle, 0x13, 0, 0, 0), android::BAD_VALUE},
        {"undeclared stability", Flat(kTypeBinder, 0x113, node, incarnation, 0), android::BAD_TYPE},
        {"unknown stability", Flat(kTypeBinder, 0x113, node, incarnation, 0x0d), android::BAD_TYPE},
        {"no incarnation", Flat(kTypeBinder, 0x113, node, 0, 0x0c), android::BAD_VALUE},
        {"serial 0", Flat(kTypeBinder, 0x113, node & ~0xffffffffull, incarnation, 0x0c), android::BAD_VALUE},
        {"our object, long gone", Flat(kTypeBinder, 0x113, node + 1000, incarnation, 0x0c), android::DEAD_OBJECT},
        {"truncated", Bytes(bytes.begin(), bytes.begin() + 24), android::NOT_ENOUGH_DATA},
    };
    for (const Case& c : cases) {
        Parcel parcel;
        sp<IBinder> binder;
        EXPECT_EQ(Load(&parcel, c.bytes)->readNullableStrongBinder(&binder), c.expected) << c.what;
        EXPECT_EQ(binder, nullptr) << c.what;
        EXPECT_EQ(parcel.dataPosition(), 0u) << c.what;
    }
}

TEST_F(LocalBinders, AnObjectOfAProcessThatIsGoneReadsAsADeadProxy) {
    // Pid 0 can own nothing, so nothing answers at that node's socket.
    Parcel parcel;
    sp<IBinder> binder;
    ASSERT_EQ(Load(&parcel, Flat(kTypeHandle, 0x13, 7, 0x1234, 0x0c))->readStrongBinder(&binder), android::OK);
    ASSERT_NE(binder, nullptr);
    ASSERT_NE(binder->remoteBinder(), nullptr);
    EXPECT_EQ(binder->localBinder(), nullptr);
    EXPECT_FALSE(binder->isBinderAlive());
    Parcel data;
    Parcel reply;
    EXPECT_EQ(binder->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply), android::DEAD_OBJECT);
    EXPECT_EQ(binder->pingBinder(), android::DEAD_OBJECT);
    EXPECT_EQ(binder->getInterfaceDescriptor().size(), 0u);
    // Read again, the same node gives the same proxy.
    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readStrongBinder(), binder);
}

TEST_F(LocalBinders, DefaultTransactionsOfALocalObject) {
    const sp<TestCallback> callback = new TestCallback();
    Parcel data;
    Parcel reply;
    EXPECT_EQ(callback->transact(IBinder::INTERFACE_TRANSACTION, data, &reply), android::OK);
    EXPECT_EQ(reply.readString16(), ITestCallback::descriptor);
    EXPECT_EQ(callback->transact(IBinder::PING_TRANSACTION, data, &reply), android::OK);
    EXPECT_EQ(callback->transact(IBinder::FIRST_CALL_TRANSACTION + 40, data, &reply), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(callback->linkToDeath(nullptr), android::INVALID_OPERATION);
    EXPECT_TRUE(callback->isBinderAlive());

    const sp<BBinder> plain = new BBinder();
    EXPECT_EQ(plain->getInterfaceDescriptor().size(), 0u);
    EXPECT_EQ(plain->queryLocalInterface(ITestCallback::descriptor), nullptr);
}

TEST_F(LocalBinders, InterfacesFindTheirLocalObject) {
    const sp<TestCallback> callback = new TestCallback();
    const sp<IBinder> binder = android::IInterface::asBinder(callback);
    EXPECT_EQ(binder.get(), static_cast<IBinder*>(callback.get()));
    EXPECT_EQ(android::interface_cast<ITestCallback>(binder).get(), static_cast<ITestCallback*>(callback.get()));
    EXPECT_EQ(ITestCallback::asInterface(nullptr), nullptr);
    EXPECT_EQ(android::IInterface::asBinder(static_cast<const android::IInterface*>(nullptr)), nullptr);

    // Through a parcel, and checked against the object's own token.
    Parcel parcel;
    parcel.writeStrongBinder(binder);
    parcel.writeInterfaceToken(ITestCallback::descriptor);
    parcel.setDataPosition(0);
    const sp<IBinder> read = parcel.readStrongBinder();
    EXPECT_EQ(ITestCallback::asInterface(read).get(), static_cast<ITestCallback*>(callback.get()));
    EXPECT_TRUE(parcel.checkInterface(read.get()));
    EXPECT_FALSE(parcel.checkInterface(nullptr));

    EXPECT_FALSE(ITestCallback::setDefaultImpl(nullptr));
    EXPECT_EQ(ITestCallback::getDefaultImpl(), nullptr);
}

TEST_F(LocalBinders, AParcelKeepsItsObjectsAliveUntilOverwritten) {
    sp<IBinder> object = new BBinder();
    const android::wp<IBinder> weak = object;
    Parcel parcel;
    parcel.writeStrongBinder(object);
    object.clear();
    ASSERT_NE(weak.promote(), nullptr);
    parcel.setDataPosition(0);
    parcel.writeInt32(1);  // the bytes are no longer a binder: the reference goes with them
    EXPECT_EQ(weak.promote(), nullptr);
}

}  // namespace
}  // namespace zovk_test
