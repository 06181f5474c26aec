// The trace file: valid JSON text, and whole lines even when threads write at once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "fsr_trace.h"

namespace fsr {
namespace {

// The trace file is chosen once per process, so this is the only test that writes one.
TEST(Trace, ConcurrentWritersNeverSplitALine) {
    char path[] = "/tmp/fsr_trace_test.XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(setenv("ZOVK_FSR_TRACE", path, 1), 0);
    ASSERT_TRUE(TraceEnabled());

    constexpr int kThreads = 8, kLines = 300;
    const std::string payload(3000, 'p');  // far beyond what a single small write would cover
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &payload] {
            for (int i = 0; i < kLines; ++i) Emit(TraceLine("t").Num("thread", t).Num("i", i).Str("p", payload));
        });
    }
    for (auto& th : threads) th.join();
    CloseTrace();

    std::ifstream in(path);
    std::map<int, int> next;  // per thread, lines must arrive whole and in order
    std::string text;
    int count = 0;
    while (std::getline(in, text)) {
        ++count;
        int t = -1, i = -1;
        const std::string want = "\",\"p\":\"" + payload + "\"}";
        ASSERT_EQ(std::sscanf(text.c_str(), "{\"event\":\"t\",\"thread\":%d,\"i\":%d", &t, &i), 2) << text.substr(0, 80);
        ASSERT_GE(text.size(), want.size());
        EXPECT_EQ(text.compare(text.size() - payload.size() - 2, payload.size() + 2, payload + "\"}"), 0);
        EXPECT_EQ(i, next[t]++);
    }
    EXPECT_EQ(count, kThreads * kLines);
    std::remove(path);
}

}  // namespace
}  // namespace fsr
