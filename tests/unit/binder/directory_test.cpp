// The runtime directory: where it is, who may use it, the modes of what is made in it, and
// the sockets leaving with their process.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include "binder_test_support.h"

namespace zovk_test {
namespace {

using android::sp;
using android::String16;

android::status_t Register(const char* name, const sp<android::IBinder>& object = new TestService()) {
    return android::defaultServiceManager()->addService(String16(name), object);
}

mode_t ModeOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

bool Contains(const std::vector<std::string>& names, const std::string& prefix) {
    return std::any_of(names.begin(), names.end(), [&](const std::string& name) { return name.rfind(prefix, 0) == 0; });
}

TEST(RuntimeDirectory, MadePrivateWithPrivateSockets) {
    BinderDir dir;
    umask(0);  // nothing may depend on the caller's umask
    ASSERT_EQ(Register("svc"), android::OK);
    umask(022);
    EXPECT_EQ(ModeOf(dir.path()), mode_t(S_IFDIR | 0700));
    EXPECT_EQ(ModeOf(dir.path() + "/svc"), mode_t(S_IFSOCK | 0600));

    android::Parcel parcel;  // publishing an object makes its own socket
    ASSERT_EQ(parcel.writeStrongBinder(new TestCallback()), android::OK);
    const std::string prefix = ".node-" + std::to_string(getpid()) + "-";
    const auto names = dir.Entries();
    EXPECT_EQ(names.size(), 3u) << "the service's socket, the callback's, and the service's name";
    for (const std::string& name : names) {
        EXPECT_EQ(ModeOf(dir.path() + "/" + name), mode_t(S_IFSOCK | 0600)) << name;
        EXPECT_TRUE(name == "svc" || name.rfind(prefix, 0) == 0) << name;
    }
}

TEST(RuntimeDirectory, OthersDirectoriesAreRefused) {
    BinderDir dir;
    const std::string target = dir.root() + "/real";
    ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
    struct Case {
        const char* what;
        std::function<void()> make;
    };
    const Case cases[] = {
        {"readable by others", [&] { mkdir(dir.path().c_str(), 0755); }},
        {"writable by the group", [&] { mkdir(dir.path().c_str(), 0770); }},
        {"a symbolic link", [&] { symlink(target.c_str(), dir.path().c_str()); }},
        {"a file", [&] { close(open(dir.path().c_str(), O_CREAT | O_WRONLY, 0600)); }},
        {"another user's", [&] {
             mkdir(dir.path().c_str(), 0700);
             if (chown(dir.path().c_str(), 65534, 65534) != 0) {
                 rmdir(dir.path().c_str());  // not root: make it loose instead, still refused
                 mkdir(dir.path().c_str(), 0777);
             }
         }},
    };
    for (const Case& c : cases) {
        std::filesystem::remove_all(dir.path());
        c.make();
        testing::internal::CaptureStderr();
        EXPECT_EQ(Register("svc"), android::PERMISSION_DENIED) << c.what;
        EXPECT_EQ(android::defaultServiceManager()->checkService(String16("svc")), nullptr) << c.what;
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("refused"), std::string::npos) << c.what << ": " << log;
        EXPECT_FALSE(std::filesystem::exists(target + "/svc")) << c.what;
        if (std::filesystem::is_directory(dir.path()) && !std::filesystem::is_symlink(dir.path())) {
            EXPECT_TRUE(dir.Entries().empty()) << c.what;
        }
    }
}

TEST(RuntimeDirectory, DefaultsToTheXdgRuntimeDirectory) {
    BinderDir dir;
    unsetenv("ZOVK_BINDER_DIR");
    setenv("XDG_RUNTIME_DIR", dir.root().c_str(), 1);
    ASSERT_EQ(Register("svc"), android::OK);
    EXPECT_EQ(ModeOf(dir.root() + "/zovk-binder"), mode_t(S_IFDIR | 0700));
    EXPECT_EQ(ModeOf(dir.root() + "/zovk-binder/svc"), mode_t(S_IFSOCK | 0600));
    EXPECT_NE(android::defaultServiceManager()->checkService(String16("svc")), nullptr);
}

TEST(RuntimeDirectory, SocketsLeaveWithTheirProcess) {
    BinderDir dir;
    const pid_t child = fork();
    if (child == 0) {
        android::Parcel parcel;
        const bool ok = Register("svc") == android::OK && parcel.writeStrongBinder(new TestCallback()) == android::OK &&
                        dir.Entries().size() == 3;
        exit(ok ? 0 : 1);  // a normal exit, with its teardown
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(dir.Entries().empty());
}

TEST(RuntimeDirectory, SocketsOfKilledProcessesAreSweptByTheNext) {
    BinderDir dir;
    std::string node;
    {
        ChildService child("svc", [] { return sp<android::IBinder>(new TestService()); });
        ASSERT_TRUE(child.registered());
        node = ".node-" + std::to_string(child.pid()) + "-";
        child.KillAndReap();
        ASSERT_TRUE(Contains(dir.Entries(), node));
    }
    EXPECT_EQ(android::defaultServiceManager()->checkService(String16("svc")), nullptr) << "stale, not answering";
    ASSERT_EQ(Register("other"), android::OK);
    EXPECT_FALSE(Contains(dir.Entries(), node));
    ASSERT_EQ(Register("svc"), android::OK) << "the stale name is taken over";
    EXPECT_NE(android::defaultServiceManager()->checkService(String16("svc")), nullptr);
}

}  // namespace
}  // namespace zovk_test
