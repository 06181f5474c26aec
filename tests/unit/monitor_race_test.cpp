// The monitor of in-game state under concurrent pushes: child processes call the layer's own
// callback stub over the host binder at once, so that records land on several binder threads
// of this process while the main thread reads the values as the rendering modules do (no
// lock, no wait). Under ThreadSanitizer this shows the monitor free of data races; in every
// build, that each value read is one that was sent for this package, under the right field.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include <binder/Status.h>

#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_game_info_update.h"
#include "settings/zovk_settings.h"
#include "tests/unit/binder/binder_test_support.h"

namespace {

using com::veltra::pavune::IGameInfoUpdate;

const std::string kPackage = "com.miHoYo.hkrpg";
const std::string kOther = "com.HoYoverse.hkrpgoversea";
constexpr int kPushers = 4;  // the stand-in serves up to four calls at once
constexpr int kSettled = 400;
// Each field takes values from its own range, so that a value stored under the wrong field
// shows: pusher p sends base + 100 p + (round % 100); the settler base + kSettled.
constexpr int kScene = 1000;
constexpr int kMsaa = 2000;     // picture key 54
constexpr int kQuality = 3000;  // picture key 8

bool InRange(int value, int base) {
    return value == 0 || (value >= base && value <= base + kSettled);
}

std::vector<std::string> Records(int n, int level) {
    return {"1 " + kPackage + " " + std::to_string(kScene + n), "2 " + kPackage + " 54 " + std::to_string(kMsaa + n),
            "2 " + kPackage + " 8 " + std::to_string(kQuality + n), "6 " + kPackage + " " + std::to_string(level)};
}

// A child that waits for a byte on its pipe, then sends the records through the layer's own
// proxy, one call each, and exits 0 when every call succeeded. Returns its pid and the pipe.
std::pair<pid_t, int> Sender(const std::vector<std::string>& records) {
    int go[2];
    if (pipe(go) != 0) {
        return {-1, -1};
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(go[1]);
        char byte;
        (void)!read(go[0], &byte, 1);
        const auto callback = IGameInfoUpdate::asInterface(zovk_test::Find("zovk.test.game_info_update"));
        int failed = callback == nullptr ? 1 : 0;
        for (size_t i = 0; callback != nullptr && i < records.size(); ++i) {
            // Malformed records too: the stub reports success whatever the monitor made of them.
            failed += callback->sendToZoGL(android::String16(records[i].c_str())).isOk() ? 0 : 1;
        }
        _exit(failed == 0 ? 0 : 1);
    }
    close(go[0]);
    return {pid, go[1]};
}

bool Succeeded(int status) {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void Go(int fd) {
    (void)!write(fd, "g", 1);
    close(fd);
}

TEST(MonitorRace, ConcurrentPushesWhileReadingYieldOnlySentValues) {
    zovk_test::BinderDir dir;  // the children inherit ZOVK_BINDER_DIR
    // Every process is forked before this one starts a thread (the monitor's, the binder's).
    std::vector<std::pair<pid_t, int>> pushers;
    const std::string nothing[] = {"1 " + kOther + " 666",    "2 " + kOther + " 54 666", "2 " + kOther + " 8 666",
                                   "6 " + kOther + " 666",    "2 " + kPackage + " 9 666", "1 " + kPackage,
                                   "2 " + kPackage + " 54"};  // records that must change nothing
    for (int p = 0; p < kPushers; ++p) {
        std::vector<std::string> records;
        for (int round = 0; round < 250; ++round) {
            const std::vector<std::string> sent = Records(100 * p + round % 100, (p + round) % 6);
            records.insert(records.end(), sent.begin(), sent.end());
            records.push_back(nothing[(p + round) % 7]);
        }
        pushers.push_back(Sender(records));
        ASSERT_GT(pushers.back().first, 0);
    }
    const auto settler = Sender(Records(kSettled, 4));
    ASSERT_GT(settler.first, 0);

    // Recognised and started, as after an accepted configuration: records for this package count.
    ASSERT_TRUE(vulkan::zovk::ZoVkSettings::GetInstance()->IdentifyApplication(kPackage));
    android::ZoVkAppInfoMonitor* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    monitor->Start();
    ASSERT_EQ(android::OK, android::defaultServiceManager()->addService(
                               android::String16("zovk.test.game_info_update"),
                               new com::veltra::pavune::BnGameInfoUpdate()));
    for (const auto& pusher : pushers) {
        Go(pusher.second);
    }
    // Scene, MSAA, quality, level, and the VRS switch, updated apart from the level: any value was sent.
    using Values = std::array<int, 5>;
    const auto read = [monitor] {
        return Values{monitor->GetSceneId(), monitor->GetMSAASwitch(), monitor->GetImageQuality(),
                      monitor->getVrsLevel(), monitor->IsVrsEnable()};
    };
    std::string bad;  // the first values read that were never sent for this package under their field
    int finished = 0, succeeded = 0;
    while (finished < kPushers) {
        const Values v = read();
        if (bad.empty() && !(InRange(v[0], kScene) && InRange(v[1], kMsaa) && InRange(v[2], kQuality) && v[3] >= 0 &&
                             v[3] < 6)) {
            bad = testing::PrintToString(v);
        }
        int status = 0;
        if (waitpid(-1, &status, WNOHANG) > 0) {
            ++finished;
            succeeded += Succeeded(status) ? 1 : 0;
        }
        std::this_thread::yield();
    }
    EXPECT_EQ(bad, "");
    EXPECT_EQ(succeeded, kPushers) << "every pusher's calls succeed";

    // Each call returns after the monitor stored its record: once the settler is gone, the values
    // are exactly its own.
    Go(settler.second);
    int status = 0;
    ASSERT_EQ(waitpid(settler.first, &status, 0), settler.first);
    ASSERT_TRUE(Succeeded(status));
    EXPECT_EQ(read(), (Values{kScene + kSettled, kMsaa + kSettled, kQuality + kSettled, 4, 1}));
}

}  // namespace
