// binder::Status: the reply layout libbinder writes and reads, and the status_t mapping.
#include <stdint.h>

#include <vector>

#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

namespace zovk_test {
namespace {

using android::Parcel;
using android::String8;
using android::binder::Status;
using Bytes = std::vector<uint8_t>;

Bytes BytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

TEST(StatusReply, OkIsOneZeroWord) {
    Parcel reply;
    ASSERT_EQ(Status::ok().writeToParcel(&reply), android::OK);
    EXPECT_EQ(BytesOf(reply), (Bytes{0, 0, 0, 0}));
}

TEST(StatusReply, ExceptionsCarryMessageAndEmptyStackTrace) {
    Parcel reply;
    ASSERT_EQ(Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad").writeToParcel(&reply), android::OK);
    EXPECT_EQ(BytesOf(reply), (Bytes{0xfd, 0xff, 0xff, 0xff,            // EX_ILLEGAL_ARGUMENT
                                     3, 0, 0, 0, 'b', 0, 'a', 0, 'd', 0, 0, 0,  // message
                                     0, 0, 0, 0}));                       // no remote stack trace

    Parcel specific;
    ASSERT_EQ(Status::fromServiceSpecificError(42, String8("x")).writeToParcel(&specific), android::OK);
    EXPECT_EQ(BytesOf(specific), (Bytes{0xf8, 0xff, 0xff, 0xff, 1, 0, 0, 0, 'x', 0, 0, 0, 0, 0, 0, 0, 42, 0, 0, 0}));

    Parcel parcelable;
    ASSERT_EQ(Status::fromExceptionCode(Status::EX_PARCELABLE).writeToParcel(&parcelable), android::OK);
    EXPECT_EQ(BytesOf(parcelable), (Bytes{0xf7, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(StatusReply, TransactionFailureIsReturnedNotWritten) {
    Parcel reply;
    EXPECT_EQ(Status::fromStatusT(android::DEAD_OBJECT).writeToParcel(&reply), android::DEAD_OBJECT);
    EXPECT_EQ(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED).writeToParcel(&reply),
              android::FAILED_TRANSACTION);
    EXPECT_EQ(reply.dataSize(), 0u);
}

TEST(StatusReply, WriteOverReplacesAPartlyWrittenReply) {
    Parcel reply;
    reply.writeInt32(0);
    reply.writeString16(android::String16("half"));
    ASSERT_EQ(Status::fromExceptionCode(Status::EX_NULL_POINTER).writeOverParcel(&reply), android::OK);
    reply.setDataPosition(0);
    EXPECT_EQ(reply.readExceptionCode(), Status::EX_NULL_POINTER);
    EXPECT_EQ(reply.dataAvail(), 0u);
}

TEST(StatusReply, ReadsBackWhatItWrites) {
    const Status statuses[] = {
        Status::ok(),
        Status::fromExceptionCode(Status::EX_SECURITY, "denied"),
        Status::fromExceptionCode(Status::EX_UNSUPPORTED_OPERATION),
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
        EXPECT_EQ(reply.readInt32(), 99) << "the status is consumed exactly: " << written.toString8().c_str();
    }
}

TEST(StatusReply, FatReplyHeaderIsSkippedAsSuccess) {
    Parcel reply;
    reply.writeInt32(Status::EX_HAS_REPLY_HEADER);
    reply.writeInt32(12);  // header size, itself included
    reply.writeInt32(0x11111111);
    reply.writeInt32(0x22222222);
    reply.writeInt32(5);
    reply.setDataPosition(0);
    Status status;
    EXPECT_EQ(status.readFromParcel(reply), android::OK);
    EXPECT_TRUE(status.isOk());
    EXPECT_EQ(reply.readInt32(), 5);
}

TEST(StatusReply, MalformedRepliesBecomeTransactionErrors) {
    struct Case {
        const char* what;
        std::vector<int32_t> words;
        android::status_t expected;
    };
    const Case cases[] = {
        {"empty", {}, android::NOT_ENOUGH_DATA},
        {"reply header without size", {Status::EX_HAS_REPLY_HEADER}, android::NOT_ENOUGH_DATA},
        {"reply header too long", {Status::EX_HAS_REPLY_HEADER, 64}, android::UNKNOWN_ERROR},
        {"negative reply header", {Status::EX_HAS_REPLY_HEADER, -4}, android::UNKNOWN_ERROR},
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

TEST(StatusValues, StatusTMapping) {
    EXPECT_TRUE(Status::fromStatusT(android::OK).isOk());
    const Status dead = Status::fromStatusT(android::DEAD_OBJECT);
    EXPECT_FALSE(dead.isOk());
    EXPECT_EQ(dead.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(dead.transactionError(), android::DEAD_OBJECT);
    EXPECT_EQ(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED).transactionError(), android::FAILED_TRANSACTION);
    EXPECT_EQ(Status::fromExceptionCode(Status::EX_NULL_POINTER).transactionError(), android::OK);

    Status status = Status::fromExceptionCode(Status::EX_SECURITY, "no");
    status.setFromStatusT(android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(status.transactionError(), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(status.exceptionMessage().size(), 0u);
    status.setFromStatusT(android::OK);
    EXPECT_TRUE(status.isOk());
}

TEST(StatusValues, ToString8) {
    EXPECT_STREQ(Status::ok().toString8().c_str(), "No error");
    EXPECT_STREQ(Status::fromExceptionCode(Status::EX_NULL_POINTER, "gone").toString8().c_str(),
                 "Status(-4, EX_NULL_POINTER): 'gone'");
    EXPECT_STREQ(Status::fromServiceSpecificError(3, String8("x")).toString8().c_str(),
                 "Status(-8, EX_SERVICE_SPECIFIC): '3: x'");
    EXPECT_STREQ(Status::fromStatusT(android::DEAD_OBJECT).toString8().c_str(),
                 "Status(-129, EX_TRANSACTION_FAILED): '-32: '");
    EXPECT_EQ(Status::exceptionToString(-77), "-77");
}

}  // namespace
}  // namespace zovk_test
