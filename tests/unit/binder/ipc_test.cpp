// Calls between processes: a service in a child process found by name and called through its
// proxy; binders it is sent and holds; death and a stopped service; who may use the runtime
// directory and what is left in it; and peers that do not follow the transport (garbage,
// oversized, truncated or stalled input, strangers), which must cost the service one
// connection and nothing else.
#include <errno.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fstream>
#include <iterator>
#include <memory>

#include <gtest/gtest.h>

#include "binder_test_support.h"
#include "platform/host/binder/transport.h"

namespace zovk_test {
namespace {

using namespace android;
using namespace android::hostbinder;
using Clock = std::chrono::steady_clock;

android::status_t Echo(const sp<IBinder>& service, const char* text) {
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(TestService::kDescriptor);
    data.writeString16(String16(text));
    const android::status_t err = service->transact(TestService::ECHO, data, &reply);
    EXPECT_TRUE(err != android::OK || (reply.readExceptionCode() == 0 && reply.readString16() == String16(text)));
    return err;
}

android::status_t Register(const char* name) {
    return android::defaultServiceManager()->addService(String16(name), new TestService());
}

Bytes Header(uint32_t kind, uint32_t length, uint32_t objects = 0, uint32_t magic = kFrameMagic) {
    Bytes bytes(kFrameHeaderSize);
    EncodeFrameHeader(FrameHeader{kind, 0, 0, length, objects}, bytes.data());
    PutU32(bytes.data(), magic);
    return bytes;
}

Bytes Hello(uint64_t node = 0, uint64_t incarnation = 0) {
    return Header(kHello, kHelloSize) + Le(node, 8) + Le(incarnation, 8);
}

// A call carrying `data` and one object offset.
Bytes CallWithObject(uint32_t offset, const Bytes& data) {
    return Hello() + Header(kCall, uint32_t(data.size() + 4), 1) + data + Le(offset, 4);
}

// The connected socket, or -1 with errno set by the connect.
int Connect(const std::string& path, int flags = 0) {
    sockaddr_un addr{AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// Sends the bytes and reports whether the peer then hangs up (what it says before is dropped;
// a reset counts). Gives up after ten seconds.
bool HangsUpAfter(int fd, const Bytes& bytes) {
    if (fd < 0) {
        return false;
    }
    if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != ssize_t(bytes.size())) {
        close(fd);
        return errno == EPIPE || errno == ECONNRESET;  // hung up before reading it all
    }
    timeval bound{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
    uint8_t buf[256];
    ssize_t n = 0;
    while ((n = recv(fd, buf, sizeof(buf), 0)) > 0) {
    }
    close(fd);
    return n == 0 || errno == ECONNRESET;
}

mode_t ModeOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

class Ipc : public testing::Test {
protected:
    sp<IBinder> StartChild(const std::string& logPath = "") {
        child_ = std::make_unique<ChildService>("echo", logPath);
        EXPECT_TRUE(child_->registered());
        return Find("echo");
    }
    BinderDir dir_;
    std::unique_ptr<ChildService> child_;
};

TEST_F(Ipc, CallsReachTheServiceFoundByNameAndTheCalleesStatusComesBack) {
    const sp<IBinder> service = StartChild();
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(Echo(service, "hello"), android::OK);
    EXPECT_EQ(Find("echo"), service) << "one proxy per remote object";
    EXPECT_EQ(TestService::Call(service, TestService::WHO), child_->pid());
    Parcel reply;
    // As the game service keeps the layer's callback after the layer dropped its own reference.
    sp<TestService> callback = new TestService();
    const android::wp<TestService> weak = callback;
    Parcel held;
    held.writeStrongBinder(callback);
    ASSERT_EQ(service->transact(TestService::HOLD, held, &reply), android::OK);
    held.freeData();
    callback.clear();
    ASSERT_NE(weak.promote(), nullptr);
    EXPECT_EQ(TestService::Call(service, TestService::CALL_HELD), getpid()) << "called back in this process";
    EXPECT_TRUE(dir_.HasNodeOf(getpid()));
    TestService::Call(service, TestService::HOLD);  // nothing held now
    EXPECT_TRUE(Eventually([&] { return weak.promote() == nullptr; }));
    EXPECT_TRUE(Eventually([&] { return !dir_.HasNodeOf(getpid()); }));
    EXPECT_EQ(Find("absent"), nullptr);
    for (const char* bad : {"../escape", ".node-1-1", ""}) {
        EXPECT_EQ(Register(bad), android::BAD_VALUE) << bad;
    }
    EXPECT_EQ(Find("../escape"), nullptr);
    const sp<IBinder> local = new TestService();
    ASSERT_EQ(android::defaultServiceManager()->addService(String16("mine"), local), android::OK);
    EXPECT_EQ(Find("mine"), local);
}

class Recipient : public IBinder::DeathRecipient {
public:
    void binderDied(const android::wp<IBinder>& who) override {
        who_ = who;
        died_ = true;
    }
    android::wp<IBinder> who_;
    std::atomic<bool> died_{false};
};

TEST_F(Ipc, DeathReachesALinkedRecipientAndCallsFailAfterIt) {
    const sp<IBinder> service = StartChild();
    ASSERT_NE(service, nullptr);
    const sp<Recipient> recipient = new Recipient();
    ASSERT_EQ(service->linkToDeath(recipient), android::OK);
    child_->KillAndReap();
    EXPECT_TRUE(Eventually([&] { return recipient->died_.load(); }));
    EXPECT_EQ(recipient->who_.promote(), service);
    EXPECT_EQ(Echo(service, "anyone?"), android::DEAD_OBJECT);
    EXPECT_FALSE(service->isBinderAlive());
    EXPECT_EQ(Find("echo"), nullptr) << "its socket is left, but nobody answers there";
}

TEST_F(Ipc, AStoppedServiceTimesOutInsteadOfHanging) {
    setenv("ZOVK_BINDER_TIMEOUT_MS", "300", 1);
    const sp<IBinder> service = StartChild();
    ASSERT_NE(service, nullptr);
    ASSERT_EQ(Echo(service, "open a connection"), android::OK);
    child_->Signal(SIGSTOP);
    auto start = Clock::now();
    EXPECT_EQ(Echo(service, "on the open connection"), android::TIMED_OUT);
    EXPECT_EQ(Echo(service, "on a new connection"), android::TIMED_OUT);
    EXPECT_EQ(Find("echo"), nullptr);
    // With its listen queue full, even connecting would block.
    std::vector<int> fillers;
    for (int fd = -1; fillers.size() < 1000 && (fd = Connect(dir_.path() + "/echo", SOCK_NONBLOCK)) >= 0;) {
        fillers.push_back(fd);
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(Find("echo"), nullptr);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    for (const int fd : fillers) {
        close(fd);
    }
    // Awake again: a loaded machine may take longer than the short bound to answer.
    setenv("ZOVK_BINDER_TIMEOUT_MS", "10000", 1);
    child_->Signal(SIGCONT);
    EXPECT_TRUE(service->isBinderAlive()) << "a slow service is not a dead one";
    EXPECT_EQ(Echo(service, "awake"), android::OK);
}

// --- the runtime directory --------------------------------------------------------------------

TEST_F(Ipc, TheDirectoryAndItsSocketsArePrivateWhateverTheUmask) {
    umask(0);
    ASSERT_EQ(Register("svc"), android::OK);
    Parcel parcel;  // publishing an object makes its own socket
    ASSERT_EQ(parcel.writeStrongBinder(new TestService()), android::OK);
    umask(022);
    EXPECT_EQ(ModeOf(dir_.path()), mode_t(S_IFDIR | 0700));
    const auto names = dir_.Entries();
    EXPECT_EQ(names.size(), 3u) << "the service's socket, the object's, and the service's name";
    for (const std::string& name : names) {
        EXPECT_EQ(ModeOf(dir_.path() + "/" + name), mode_t(S_IFSOCK | 0600)) << name;
    }
    unsetenv("ZOVK_BINDER_DIR");  // the default: under the XDG runtime directory
    setenv("XDG_RUNTIME_DIR", dir_.root().c_str(), 1);
    ASSERT_EQ(Register("xdg"), android::OK);
    EXPECT_EQ(ModeOf(dir_.root() + "/zovk-binder"), mode_t(S_IFDIR | 0700));
    EXPECT_EQ(ModeOf(dir_.root() + "/zovk-binder/xdg"), mode_t(S_IFSOCK | 0600));
}

TEST_F(Ipc, DirectoriesThatOthersCouldReachAreRefused) {
    const std::string target = dir_.root() + "/real";
    const std::string path = dir_.path();
    ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"readable by others", [&] { mkdir(path.c_str(), 0755); }},
        {"writable by the group", [&] { mkdir(path.c_str(), 0770); }},
        {"a symbolic link", [&] { (void)!symlink(target.c_str(), path.c_str()); }},
        {"a file", [&] { close(open(path.c_str(), O_CREAT | O_WRONLY, 0600)); }},
        {"another user's", [&] {
             mkdir(path.c_str(), 0700);
             if (chown(path.c_str(), 65534, 65534) != 0) {  // not root: make it loose instead
                 chmod(path.c_str(), 0777);
             }
         }},
    };
    for (const auto& [what, make] : cases) {
        std::filesystem::remove_all(path);
        make();
        EXPECT_EQ(Register("svc"), android::PERMISSION_DENIED) << what;
        EXPECT_EQ(Find("svc"), nullptr) << what;
        EXPECT_FALSE(std::filesystem::exists(target + "/svc")) << what;
        EXPECT_TRUE(std::filesystem::is_symlink(path) || dir_.Entries().empty()) << what;
    }
}

// --- peers that do not follow the transport ---------------------------------------------------

// Well-formed frames are exercised by every call; these are the bounds and what the transport refuses.
TEST(FrameHeader, NamesWhatItRefuses) {
    FrameHeader decoded;
    const std::pair<Bytes, const char*> cases[] = {
        {Header(kReply, kMaxFramePayload), nullptr},
        {Header(kCall, 32, 1), nullptr},  // one binder and its offset
        {Header(0, 0), "unknown frame kind"},
        {Header(kHello, kHelloSize + 4), "bad greeting"},
        {Header(kWelcome, kHelloSize, 1), "bad greeting"},
        {Header(kCall, kMaxFramePayload + 1), "frame too large"},
        {Header(kCall, 31, 1), "too many objects"},
    };
    for (const auto& [frame, why] : cases) {
        const char* got = DecodeFrameHeader(frame.data(), &decoded);
        EXPECT_STREQ(got, why) << "kind " << GetU32(frame.data() + 4) << " length " << GetU32(frame.data() + 16);
    }
}

TEST_F(Ipc, BadInputCostsTheServiceOneConnectionAndALogLine) {
    setenv("ZOVK_BINDER_TIMEOUT_MS", "300", 1);  // the child's reads give up this fast
    const std::string log = dir_.root() + "/service.log";
    const std::string svc = dir_.path() + "/echo";
    const auto logged = [&](const char* line) {
        return Eventually([&] {
            std::ifstream file(log);
            return std::string(std::istreambuf_iterator<char>(file), {}).find(line) != std::string::npos;
        });
    };
    const sp<IBinder> service = StartChild(log);
    ASSERT_NE(service, nullptr);
    const std::string http = "GET / HTTP/1.0\r\nHost: binder\r\n\r\n";
    Bytes unknownType(28, 0);
    unknownType[0] = 0x42;
    const Bytes hello = Hello();
    const std::pair<Bytes, const char*> cases[] = {
        {Bytes(http.begin(), http.end()), "bad frame magic"},
        {Hello() + Header(kCall, 0xfffffff0), "frame too large"},
        {Hello() + Header(kCall, 64, 1000), "too many objects"},
        {CallWithObject(2, Bytes(28, 0)), "bad object offset"},  // misaligned
        {CallWithObject(8, Bytes(32, 0)), "bad object offset"},  // runs past the data
        {CallWithObject(0, unknownType), "bad object in a call"},
        {Header(kCall, 0), "did not greet"},
        // Another node, or another incarnation of this one: as if this object had died.
        {Hello(12345, 0), nullptr},
        {Hello(0, 12345), nullptr},
        // Half a header, then silence: the service waits its timeout, no longer.
        {Bytes(hello.begin(), hello.begin() + 10), "stalled"},
    };
    for (const auto& [bytes, line] : cases) {
        EXPECT_TRUE(HangsUpAfter(Connect(svc), bytes)) << (line != nullptr ? line : "stranger's node");
        EXPECT_TRUE(line == nullptr || logged(line)) << line;
    }
    const int truncated = Connect(svc);
    ASSERT_GE(truncated, 0);
    send(truncated, hello.data(), 10, MSG_NOSIGNAL);
    close(truncated);
    EXPECT_TRUE(logged("truncated frame header"));
    EXPECT_TRUE(logged("libZoVK"));
    EXPECT_EQ(Echo(service, "still serving"), android::OK);
}

TEST(Strangers, ConnectionsFromAnotherUserAreRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "acting as another user needs root";
    }
    BinderDir dir;
    ASSERT_EQ(android::defaultServiceManager()->addService(android::String16("svc"), new TestService()), android::OK);
    testing::internal::CaptureStderr();
    const pid_t child = fork();
    if (child == 0) {
        // A peer shows its effective ids; the file-system uid stays root so that the private
        // directory and socket can still be reached.
        if (setegid(65534) != 0 || seteuid(65534) != 0) {
            _exit(2);
        }
        setfsuid(0);
        _exit(HangsUpAfter(Connect(dir.path() + "/svc"), Hello()) ? 0 : 4);  // without a welcome
    }
    int status = -1;
    waitpid(child, &status, 0);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(log.find("runs as uid 65534"), std::string::npos) << log;
}

}  // namespace
}  // namespace zovk_test
