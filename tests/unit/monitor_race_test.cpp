// The application information monitor under concurrent pushes. Child processes call the layer's own
// callback stub over the host binder at the same time, so that the records land on several binder
// threads of this process at once, while the main thread reads the values as the rendering modules do
// (no lock, no wait). Built with ThreadSanitizer this shows that the monitor is free of data races; in
// every build, that each value read is one that was sent for this package, under the right field.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <binder/IServiceManager.h>
#include <binder/Status.h>
#include <utils/String16.h>

#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_game_info_update.h"
#include "settings/zovk_settings.h"
#include "tests/unit/binder/binder_test_support.h"

namespace {

using android::sp;
using android::String16;
using android::ZoVkAppInfoMonitor;
using com::veltra::pavune::BnGameInfoUpdate;
using com::veltra::pavune::IGameInfoUpdate;

constexpr char kPackage[] = "com.miHoYo.hkrpg";
constexpr char kOtherPackage[] = "com.HoYoverse.hkrpgoversea";
constexpr char kServiceName[] = "zovk.test.game_info_update";

constexpr int kPushers = 4;  // the stand-in serves up to four calls at once
constexpr int kRounds = 250;

// Each field gets values from its own range, so that a value stored under the wrong field shows.
// Pusher p sends base + 100 * p + (round % 100); the settler sends base + 100 * kPushers.
constexpr int kSceneBase = 1000;
constexpr int kMsaaBase = 2000;     // picture key 54
constexpr int kQualityBase = 3000;  // picture key 8
constexpr int kVrsLevels = 6;       // the VRS switch takes 0 to 5
constexpr int kSettledVrs = 4;
// Sent for another package or under an ignored key: must never be read back.
constexpr int kPoison = 666;

int Value(int base, int pusher, int round) {
    return base + 100 * pusher + round % 100;
}

bool InRange(int value, int base) {
    return value == 0 || (value >= base && value <= base + 100 * kPushers);
}

// One round of one pusher: a record of each type for this package, then one that must change
// nothing (another package's, an ignored picture key, or a record cut short).
std::vector<std::string> Round(int pusher, int round) {
    const std::string package = kPackage;
    const std::string other = kOtherPackage;
    const std::string poison = std::to_string(kPoison);
    const std::string nothing[] = {
        "1 " + other + " " + poison,          "2 " + other + " 54 " + poison, "2 " + other + " 8 " + poison,
        "6 " + other + " " + poison,          "2 " + package + " 9 " + poison, "1 " + package,
        "2 " + package + " 54",  // no value
    };
    return {
        "1 " + package + " " + std::to_string(Value(kSceneBase, pusher, round)),
        "2 " + package + " 54 " + std::to_string(Value(kMsaaBase, pusher, round)),
        "2 " + package + " 8 " + std::to_string(Value(kQualityBase, pusher, round)),
        "6 " + package + " " + std::to_string((pusher + round) % kVrsLevels),
        nothing[(pusher + round) % (sizeof(nothing) / sizeof(nothing[0]))],
    };
}

// The records after which the values are known: sent once every pusher has finished.
std::vector<std::string> Settle() {
    const std::string package = kPackage;
    return {
        "1 " + package + " " + std::to_string(kSceneBase + 100 * kPushers),
        "2 " + package + " 54 " + std::to_string(kMsaaBase + 100 * kPushers),
        "2 " + package + " 8 " + std::to_string(kQualityBase + 100 * kPushers),
        "6 " + package + " " + std::to_string(kSettledVrs),
    };
}

// Exit codes of a child, for the parent's messages.
enum ChildExit { kChildOk = 0, kChildNoGo = 3, kChildNoService = 4, kChildCallFailed = 5 };

const char* Describe(int status) {
    if (!WIFEXITED(status)) {
        return "killed by a signal";
    }
    switch (WEXITSTATUS(status)) {
        case kChildOk:
            return "ok";
        case kChildNoGo:
            return "never told to start";
        case kChildNoService:
            return "did not find the callback service";
        case kChildCallFailed:
            return "had a sendToZoGL call fail";
        default:
            return "failed";
    }
}

// A child process that waits for one byte on a pipe, then sends its records through the layer's own
// proxy, one call each, and exits with a ChildExit code.
class Sender {
public:
    explicit Sender(std::function<std::vector<std::string>()> records) {
        int go[2];
        if (pipe(go) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(go[1]);
            _exit(Run(go[0], records()));
        }
        close(go[0]);
        goFd_ = go[1];
    }
    ~Sender() {
        if (goFd_ >= 0) {
            close(goFd_);
        }
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    bool started() const { return pid_ > 0 && goFd_ >= 0; }
    bool Go() {
        const char go = 'g';
        const bool sent = write(goFd_, &go, 1) == 1;
        close(goFd_);
        goFd_ = -1;
        return sent;
    }
    // True once the child has exited; its wait status in *status.
    bool Finished(int* status, bool block) {
        if (!reaped_) {
            reaped_ = waitpid(pid_, &status_, block ? 0 : WNOHANG) == pid_;
        }
        *status = status_;
        return reaped_;
    }

private:
    static int Run(int goFd, const std::vector<std::string>& records) {
        char go = 0;
        if (read(goFd, &go, 1) != 1 || go != 'g') {
            return kChildNoGo;
        }
        const sp<IGameInfoUpdate> callback =
            IGameInfoUpdate::asInterface(android::defaultServiceManager()->checkService(String16(kServiceName)));
        if (callback == nullptr) {
            return kChildNoService;
        }
        int failed = 0;
        for (const std::string& record : records) {
            // Malformed records too: the stub reports success whatever the monitor made of them.
            if (!callback->sendToZoGL(String16(record.c_str())).isOk()) {
                ++failed;
            }
        }
        return failed == 0 ? kChildOk : kChildCallFailed;
    }

    pid_t pid_ = -1;
    int goFd_ = -1;
    bool reaped_ = false;
    int status_ = 0;
};

// What the reader saw that was never sent, by field.
struct Violations {
    int count = 0;
    std::string first;

    void Check(bool ok, const char* field, int value) {
        if (ok) {
            return;
        }
        if (count++ == 0) {
            first = std::string(field) + " read as " + std::to_string(value);
        }
    }
};

TEST(MonitorRace, ConcurrentPushesWhileReadingYieldOnlySentValues) {
    zovk_test::BinderDir dir;  // the children inherit ZOVK_BINDER_DIR

    // Every process is forked before this one starts a thread (the monitor's, the binder's).
    std::vector<std::unique_ptr<Sender>> pushers;
    for (int p = 0; p < kPushers; ++p) {
        pushers.push_back(std::make_unique<Sender>([p] {
            std::vector<std::string> records;
            for (int round = 0; round < kRounds; ++round) {
                for (std::string& record : Round(p, round)) {
                    records.push_back(std::move(record));
                }
            }
            return records;
        }));
        ASSERT_TRUE(pushers.back()->started()) << "cannot fork pusher " << p;
    }
    Sender settler(Settle);
    ASSERT_TRUE(settler.started()) << "cannot fork the settler";

    // Recognised and started, as after an accepted configuration: records for this package count.
    ASSERT_TRUE(vulkan::zovk::ZoVkSettings::GetInstance()->IdentifyApplication(kPackage));
    ZoVkAppInfoMonitor* monitor = ZoVkAppInfoMonitor::GetInstance();
    monitor->Start();
    ASSERT_TRUE(monitor->IsStarted());
    const sp<BnGameInfoUpdate> stub = new BnGameInfoUpdate();
    ASSERT_EQ(android::OK, android::defaultServiceManager()->addService(String16(kServiceName), stub));

    for (auto& pusher : pushers) {
        ASSERT_TRUE(pusher->Go());
    }

    Violations bad;
    std::set<int> scenes;  // distinct scene ids seen, for the report
    int running = kPushers;
    std::vector<int> statuses(kPushers, 0);
    std::vector<bool> done(kPushers, false);
    while (running > 0) {
        const int scene = monitor->GetSceneId();
        const int msaa = monitor->GetMSAASwitch();
        const int quality = monitor->GetImageQuality();
        const int level = monitor->getVrsLevel();
        (void)monitor->IsVrsEnable();  // updated apart from the level: any value is one that was sent
        bad.Check(InRange(scene, kSceneBase), "scene id", scene);
        bad.Check(InRange(msaa, kMsaaBase), "MSAA switch", msaa);
        bad.Check(InRange(quality, kQualityBase), "image quality", quality);
        bad.Check(level >= 0 && level < kVrsLevels, "VRS level", level);
        scenes.insert(scene);
        for (int p = 0; p < kPushers; ++p) {
            if (!done[p] && pushers[p]->Finished(&statuses[p], false)) {
                done[p] = true;
                --running;
            }
        }
        std::this_thread::yield();
    }
    EXPECT_EQ(0, bad.count) << "values that were never sent for this package under that field, first: "
                            << bad.first;
    for (int p = 0; p < kPushers; ++p) {
        EXPECT_TRUE(WIFEXITED(statuses[p]) && WEXITSTATUS(statuses[p]) == kChildOk)
            << "pusher " << p << " " << Describe(statuses[p]);
    }
    std::printf("%zu distinct scene ids read during %d x %d records\n", scenes.size(), kPushers,
                kRounds * static_cast<int>(Round(0, 0).size()));

    // Each call returns after the monitor has stored its record: once the settler is gone, the
    // values are exactly its own.
    ASSERT_TRUE(settler.Go());
    int status = 0;
    ASSERT_TRUE(settler.Finished(&status, true));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kChildOk) << "the settler " << Describe(status);
    EXPECT_EQ(kSceneBase + 100 * kPushers, monitor->GetSceneId());
    EXPECT_EQ(kMsaaBase + 100 * kPushers, monitor->GetMSAASwitch());
    EXPECT_EQ(kQualityBase + 100 * kPushers, monitor->GetImageQuality());
    EXPECT_EQ(kSettledVrs, monitor->getVrsLevel());
    EXPECT_TRUE(monitor->IsVrsEnable());
}

}  // namespace
