// The Star Rail VRS module's configuration ("vrs_Params") and its shading-rate patterns:
// what the module is told and what it writes into its template buffers, without a device.
#include <json/reader.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "app/module/zovk_star_rail_vrs_module_data.h"
#include "app/module/zovk_star_rail_vrs_patterns.h"

namespace {

using namespace vulkan::zovk;
using namespace vulkan::zovk::app::module;
using Texels = std::vector<uint8_t>;

// valid, resolutions, main-pass attachments, full-rate draw (first, last, indices, instances), levels
using Parsed = std::tuple<bool, std::string, int32_t, int64_t, int64_t, int32_t, int32_t, int32_t>;

Parsed Parse(const Json::Value& config, std::string* log) {
    testing::internal::CaptureStderr();
    const ZoVkStarRailVRSModuleData d(config);
    *log = testing::internal::GetCapturedStderr();
    std::string resolutions;
    for (const MyVkExtent2D& r : d.resolutions) {
        resolutions += (resolutions.empty() ? "" : ",") + std::to_string(r.width) + "x" + std::to_string(r.height);
    }
    return {d.valid,           resolutions,          d.mainPassAttachmentCount, d.fullRateDrawFirst,
            d.fullRateDrawLast, d.fullRateIndexCount, d.fullRateInstanceCount,   d.templateLevelCount};
}

Json::Value Config(const std::string& params) {
    Json::Value config(Json::objectValue);
    config["vrs_Params"] = params;
    return config;
}

// A malformed group invalidates and ends parsing, keeping what came before; a draw group of
// another length than 4 is ignored. The warning quotes the piece it refuses.
TEST(VrsParams, ParsesEachGroupOrStopsAtTheFirstBadOne) {
    const struct {
        const char* params;
        Parsed parsed;
        const char* refused;  // null: nothing is warned about
    } cases[] = {
        {"1920x1080,2400x1080;5;10,12,3000,1;2", {true, "1920x1080,2400x1080", 5, 10, 12, 3000, 1, 2}, nullptr},
        {"", {true, "", 0, 0, 0, 0, 0, 0}, nullptr},
        {"2147483647x1;2147483647;1,2147483647,3,4;2147483647",
         {true, "2147483647x1", 2147483647, 1, 2147483647, 3, 4, 2147483647}, nullptr},
        // Empty pieces are skipped, so the groups after them move up.
        {"1920x1080,,2400x1080;;5", {true, "1920x1080,2400x1080", 5, 0, 0, 0, 0, 0}, nullptr},
        {"1920x1080;5;;2", {true, "1920x1080", 5, 0, 0, 0, 0, 0}, "2"},
        {"1920x1080;5;10,12,3000,1,7;2", {true, "1920x1080", 5, 0, 0, 0, 0, 2}, "10,12,3000,1,7"},
        {"1920*1080;5;10,12,3000,1;2", {false, "", 0, 0, 0, 0, 0, 0}, "1920*1080"},
        {"1280x720,1920x;5", {false, "1280x720", 0, 0, 0, 0, 0, 0}, "1920x"},
        {"-1920x1080", {false, "", 0, 0, 0, 0, 0, 0}, "-1920x1080"},
        {"1920x1080;five;10,12,3000,1;2", {false, "1920x1080", 0, 0, 0, 0, 0, 0}, "five"},
        {"1920x1080;5;10,-12,3000,1;2", {false, "1920x1080", 5, 0, 0, 0, 0, 0}, "-12"},
        {"1920x1080;5;10,12,3000,1;two", {false, "1920x1080", 5, 10, 12, 3000, 1, 0}, "two"},
        // Beyond int32: refused, not thrown.
        {"1920x99999999999999999999999999", {false, "", 0, 0, 0, 0, 0, 0}, "1920x99999999999999999999999999"},
        {"1920x1080;2147483648", {false, "1920x1080", 0, 0, 0, 0, 0, 0}, "2147483648"},
        {"1920x1080;5;10,12,3000,4294967296;2", {false, "1920x1080", 5, 0, 0, 0, 0, 0}, "4294967296"},
    };
    for (const auto& c : cases) {
        std::string log;
        EXPECT_EQ(Parse(Config(c.params), &log), c.parsed) << c.params;
        EXPECT_EQ(log.find("vrs_Params") != std::string::npos, c.refused != nullptr) << c.params << ": " << log;
        if (c.refused != nullptr) {
            EXPECT_NE(log.find('"' + std::string(c.refused) + '"'), std::string::npos) << c.params << ": " << log;
        }
    }
}

// An absent or null member reads as an empty string; any other non-string is invalid.
TEST(VrsParams, OnlyAStringOrNothingIsAccepted) {
    const struct {
        const char* json;
        bool valid;
    } cases[] = {{"null", true}, {R"({"vrs_Params":null})", true}, {R"({"vrs_Params":1920})", false},
                 {R"({"vrs_Params":[1]})", false}};
    for (const auto& c : cases) {
        Json::Value config;
        ASSERT_TRUE(Json::Reader().parse(c.json, config)) << c.json;
        std::string log;
        EXPECT_EQ(Parse(config, &log), (Parsed{c.valid, "", 0, 0, 0, 0, 0, 0})) << c.json;
    }
}

// Fills a w x h image in a buffer with guard bytes behind it; the guard must stay.
Texels Fill(uint32_t templateIndex, uint32_t w, uint32_t h) {
    constexpr size_t kGuard = 16;
    Texels buffer(size_t{w} * h + kGuard, 0xAA);
    EXPECT_TRUE(fillShadingRateTemplate(templateIndex, buffer.data(), w, h));
    EXPECT_EQ(Texels(buffer.end() - kGuard, buffer.end()), Texels(kGuard, 0xAA)) << "written past " << w << "x" << h;
    buffer.resize(size_t{w} * h);
    return buffer;
}

TEST(ShadingRatePatterns, EdgeSizesAndTemplatesBeyondTheFourWriteOnlyWhatTheyShould) {
    for (uint32_t k = 0; k < 4; ++k) {
        for (const auto& [w, h] : {std::pair<uint32_t, uint32_t>{0, 0}, {0, 67}, {120, 0}}) {
            Texels untouched(16, 0xAA);
            fillShadingRateTemplate(k, untouched.data(), w, h);
            EXPECT_EQ(untouched, Texels(16, 0xAA)) << k << " " << w << "x" << h;
        }
        fillShadingRateTemplate(k, nullptr, 120, 67);
        EXPECT_EQ(Fill(k, 1, 1), Texels{0}) << "a single texel is the centre";
    }
    // Templates from 4 on (levels beyond 2) are made but never filled.
    Texels left(64, 0xAA);
    EXPECT_FALSE(fillShadingRateTemplate(4, left.data(), 8, 8));
    EXPECT_EQ(left, Texels(64, 0xAA));
}

}  // namespace
