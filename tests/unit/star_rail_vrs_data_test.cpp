// The Star Rail VRS module's configuration ("vrs_Params") and its shading-rate patterns:
// what the module is told and what it writes into its template buffers, without a device.
#include <gtest/gtest.h>

#include <json/reader.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "app/module/zovk_star_rail_vrs_module_data.h"
#include "app/module/zovk_star_rail_vrs_patterns.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app::module;

namespace {

Json::Value Config(const std::string& params) {
    Json::Value config(Json::objectValue);
    config["vrs_Params"] = params;
    return config;
}

// Parses `params` and returns what was logged while doing it.
std::string ParseLogged(const Json::Value& config, ZoVkStarRailVRSModuleData** out) {
    testing::internal::CaptureStderr();
    *out = new ZoVkStarRailVRSModuleData(config);
    return testing::internal::GetCapturedStderr();
}

using Resolutions = std::vector<MyVkExtent2D>;

void ExpectNoDrawOrCounts(const ZoVkStarRailVRSModuleData& d) {
    EXPECT_EQ(d.mainPassAttachmentCount, 0);
    EXPECT_EQ(d.fullRateDrawFirst, 0);
    EXPECT_EQ(d.fullRateDrawLast, 0);
    EXPECT_EQ(d.fullRateIndexCount, 0);
    EXPECT_EQ(d.fullRateInstanceCount, 0);
    EXPECT_EQ(d.templateLevelCount, 0);
}

}  // namespace

// --- parsing ---------------------------------------------------------------------------------

TEST(VrsParams, TheDocumentedExampleFillsEveryField) {
    const ZoVkStarRailVRSModuleData d(Config("1920x1080,2400x1080;5;10,12,3000,1;2"));
    EXPECT_TRUE(d.valid);
    EXPECT_EQ(d.resolutions, (Resolutions{{1920, 1080}, {2400, 1080}}));
    EXPECT_EQ(d.mainPassAttachmentCount, 5);
    EXPECT_EQ(d.fullRateDrawFirst, 10);
    EXPECT_EQ(d.fullRateDrawLast, 12);
    EXPECT_EQ(d.fullRateIndexCount, 3000);
    EXPECT_EQ(d.fullRateInstanceCount, 1);
    EXPECT_EQ(d.templateLevelCount, 2);
}

TEST(VrsParams, NothingConfiguredIsValidAndEmpty) {
    Json::Value withoutMember(Json::objectValue);
    withoutMember["other"] = "1920x1080";
    for (const Json::Value& config : {Config(""), withoutMember, Json::Value(Json::objectValue), Json::Value()}) {
        const ZoVkStarRailVRSModuleData d(config);
        EXPECT_TRUE(d.valid) << config.toStyledString();
        EXPECT_TRUE(d.resolutions.empty());
        ExpectNoDrawOrCounts(d);
    }
}

TEST(VrsParams, OnlyResolutionsLeavesTheRestAtZero) {
    // Valid, but with no levels no template is ever made.
    const ZoVkStarRailVRSModuleData d(Config("1920x1080"));
    EXPECT_TRUE(d.valid);
    EXPECT_EQ(d.resolutions, (Resolutions{{1920, 1080}}));
    ExpectNoDrawOrCounts(d);
}

TEST(VrsParams, BadResolutionItemInvalidatesAndKeepsEarlierItems) {
    struct Case {
        const char* params;
        Resolutions kept;
        const char* named;
    };
    for (const Case& c : {Case{"1920*1080;5;10,12,3000,1;2", {}, "1920*1080"},
                          Case{"1280x720,1920x1080x1;5;10,12,3000,1;2", {{1280, 720}}, "1920x1080x1"},
                          Case{"1280x720,1920x;5", {{1280, 720}}, "1920x"},
                          Case{"-1920x1080", {}, "-1920x1080"},
                          Case{"1920x1080,axb,2400x1080", {{1920, 1080}}, "axb"}}) {
        ZoVkStarRailVRSModuleData* d = nullptr;
        const std::string log = ParseLogged(Config(c.params), &d);
        EXPECT_FALSE(d->valid) << c.params;
        EXPECT_EQ(d->resolutions, c.kept) << c.params;
        ExpectNoDrawOrCounts(*d);  // parsing ended at the bad item
        EXPECT_NE(log.find(std::string("\"") + c.named + "\""), std::string::npos) << log;
        delete d;
    }
}

TEST(VrsParams, DrawGroupOfAnotherLengthIsIgnoredWithoutInvalidating) {
    for (const char* params : {"1920x1080;5;10,12,3000,1,7;2", "1920x1080;5;10,12,3000;2"}) {
        const ZoVkStarRailVRSModuleData d(Config(params));
        EXPECT_TRUE(d.valid) << params;
        EXPECT_EQ(d.mainPassAttachmentCount, 5);
        EXPECT_EQ(d.fullRateDrawFirst, 0);
        EXPECT_EQ(d.fullRateDrawLast, 0);
        EXPECT_EQ(d.fullRateIndexCount, 0);
        EXPECT_EQ(d.fullRateInstanceCount, 0);
        EXPECT_EQ(d.templateLevelCount, 2) << "parsing goes on after an ignored group";
    }
}

TEST(VrsParams, NonNumericGroupsInvalidateAndKeepWhatCameBefore) {
    {
        ZoVkStarRailVRSModuleData* d = nullptr;
        const std::string log = ParseLogged(Config("1920x1080;five;10,12,3000,1;2"), &d);
        EXPECT_FALSE(d->valid);
        EXPECT_EQ(d->resolutions, (Resolutions{{1920, 1080}}));
        ExpectNoDrawOrCounts(*d);
        EXPECT_NE(log.find("\"five\""), std::string::npos) << log;
        delete d;
    }
    {
        ZoVkStarRailVRSModuleData* d = nullptr;
        const std::string log = ParseLogged(Config("1920x1080;5;10,12,3000,1;two"), &d);
        EXPECT_FALSE(d->valid);
        EXPECT_EQ(d->mainPassAttachmentCount, 5);
        EXPECT_EQ(d->fullRateDrawFirst, 10);
        EXPECT_EQ(d->fullRateDrawLast, 12);
        EXPECT_EQ(d->fullRateIndexCount, 3000);
        EXPECT_EQ(d->fullRateInstanceCount, 1);
        EXPECT_EQ(d->templateLevelCount, 0);
        EXPECT_NE(log.find("\"two\""), std::string::npos) << log;
        delete d;
    }
    {
        // One bad number of four: none of them is taken, and the level count is never read.
        const ZoVkStarRailVRSModuleData d(Config("1920x1080;5;10,-12,3000,1;2"));
        EXPECT_FALSE(d.valid);
        EXPECT_EQ(d.mainPassAttachmentCount, 5);
        EXPECT_EQ(d.fullRateDrawFirst, 0);
        EXPECT_EQ(d.templateLevelCount, 0);
    }
}

TEST(VrsParams, NumbersBeyondInt32AreRejectedWithAWarningNotAnException) {
    for (const char* params : {"99999999999x1080", "1920x99999999999999999999999999", "1920x1080;2147483648",
                               "1920x1080;5;10,12,3000,4294967296;2", "1920x1080;5;10,12,3000,1;99999999999"}) {
        ZoVkStarRailVRSModuleData* d = nullptr;
        std::string log;
        EXPECT_NO_THROW(log = ParseLogged(Config(params), &d)) << params;
        ASSERT_NE(d, nullptr);
        EXPECT_FALSE(d->valid) << params;
        EXPECT_NE(log.find("vrs_Params"), std::string::npos) << log;
        delete d;
    }
    // The largest int32 still fits.
    const ZoVkStarRailVRSModuleData d(Config("2147483647x1;2147483647;1,2147483647,3,4;2147483647"));
    EXPECT_TRUE(d.valid);
    EXPECT_EQ(d.resolutions, (Resolutions{{2147483647u, 1}}));
    EXPECT_EQ(d.mainPassAttachmentCount, 2147483647);
    EXPECT_EQ(d.fullRateDrawLast, 2147483647);
    EXPECT_EQ(d.templateLevelCount, 2147483647);
}

TEST(VrsParams, NonStringValueIsInvalidNotACrash) {
    for (const char* text : {R"({"vrs_Params":1920})", R"({"vrs_Params":{"a":1}})", R"({"vrs_Params":[1]})"}) {
        Json::Value config;
        ASSERT_TRUE(Json::Reader().parse(text, config));
        ZoVkStarRailVRSModuleData* d = nullptr;
        EXPECT_NO_THROW(ParseLogged(config, &d)) << text;
        ASSERT_NE(d, nullptr);
        EXPECT_FALSE(d->valid) << text;
        EXPECT_TRUE(d->resolutions.empty());
        delete d;
    }
}

TEST(VrsParams, MainPassResContainsFindsTheFirstExactMatch) {
    const ZoVkStarRailVRSModuleData d(Config("1920x1080,2400x1080,1920x1080,1080x1920"));
    ASSERT_TRUE(d.valid);
    EXPECT_EQ(d.mainPassResContains(1920, 1080), 0u);
    EXPECT_EQ(d.mainPassResContains(2400, 1080), 1u);
    EXPECT_EQ(d.mainPassResContains(1080, 1920), 3u);  // width and height are not interchangeable
    EXPECT_EQ(d.mainPassResContains(1920, 1081), 0xFFFFFFFFu);
    EXPECT_EQ(d.mainPassResContains(2400, 1920), 0xFFFFFFFFu);

    const ZoVkStarRailVRSModuleData empty(Config(""));
    EXPECT_EQ(empty.mainPassResContains(0, 0), 0xFFFFFFFFu);
    EXPECT_EQ(empty.mainPassResContains(1920, 1080), 0xFFFFFFFFu);
}

// --- patterns --------------------------------------------------------------------------------

namespace {

using Pattern = void (*)(void*, uint32_t, uint32_t);
using Texels = std::vector<uint8_t>;

struct NamedPattern {
    const char* name;
    Pattern fill;
};
const NamedPattern kPatterns[] = {{"main 1", createMainPassShadingRateTemplate1},
                                  {"main 2", createMainPassShadingRateTemplate2},
                                  {"light 1", createLightPassShadingRateTemplate1},
                                  {"light 2", createLightPassShadingRateTemplate2}};

constexpr uint8_t kUntouched = 0xAA;
constexpr size_t kGuard = 16;

// Fills a w x h image in a buffer with guard bytes behind it; checks the guard.
Texels Make(Pattern fill, uint32_t w, uint32_t h) {
    Texels buffer(size_t{w} * h + kGuard, kUntouched);
    fill(buffer.data(), w, h);
    for (size_t i = size_t{w} * h; i < buffer.size(); ++i) {
        EXPECT_EQ(buffer[i], kUntouched) << "written past " << w << "x" << h;
    }
    buffer.resize(size_t{w} * h);
    return buffer;
}

std::set<uint8_t> Values(const Texels& t) { return {t.begin(), t.end()}; }

}  // namespace

// Hand-worked from the pattern definitions for an 8 x 4 image (x = 4 is the centre column).
// Main 1 is the documented example: its ellipse centre is row 1, rx = 4/3, ry = 2; row 3 keeps
// x = 4 because it lies exactly on the boundary.
TEST(ShadingRatePatterns, EightByFourByteForByte) {
    const Texels main1 = {1, 1, 1, 0, 0, 0, 1, 1,  //
                          1, 1, 1, 0, 0, 0, 1, 1,  //
                          1, 1, 1, 0, 0, 0, 1, 1,  //
                          1, 1, 1, 1, 0, 1, 1, 1};
    // Same inner ellipse; outer centred on row 2 with rx = 8/3, ry = 1.2 + 2/3 (row 0 misses it).
    const Texels main2 = {5, 5, 5, 0, 0, 0, 5, 5,  //
                          5, 5, 1, 0, 0, 0, 1, 5,  //
                          5, 5, 1, 0, 0, 0, 1, 5,  //
                          5, 5, 1, 1, 0, 1, 1, 5};
    // Centred on row 2, rx = 2, ry = 1.5: (x = 2, row 2) lies on the boundary.
    const Texels light1 = {1, 1, 1, 1, 1, 1, 1, 1,  //
                           1, 1, 1, 0, 0, 0, 1, 1,  //
                           1, 1, 0, 0, 0, 0, 0, 1,  //
                           1, 1, 1, 0, 0, 0, 1, 1};
    // Inner rx = 4/3, ry = 1; outer rx = 8/3, ry = 2: both touch rows at the centre column only.
    const Texels light2 = {5, 5, 5, 5, 1, 5, 5, 5,  //
                           5, 5, 1, 1, 0, 1, 1, 5,  //
                           5, 5, 1, 0, 0, 0, 1, 5,  //
                           5, 5, 1, 1, 0, 1, 1, 5};
    EXPECT_EQ(Make(createMainPassShadingRateTemplate1, 8, 4), main1);
    EXPECT_EQ(Make(createMainPassShadingRateTemplate2, 8, 4), main2);
    EXPECT_EQ(Make(createLightPassShadingRateTemplate1, 8, 4), light1);
    EXPECT_EQ(Make(createLightPassShadingRateTemplate2, 8, 4), light2);
}

TEST(ShadingRatePatterns, RatesAppearWhereTheyBelong) {
    const uint32_t w = 120, h = 67;  // 1920x1080 at texel size 16
    for (const NamedPattern& p : kPatterns) {
        const Texels t = Make(p.fill, w, h);
        const bool twoRings =
            p.fill == createMainPassShadingRateTemplate2 || p.fill == createLightPassShadingRateTemplate2;
        EXPECT_EQ(Values(t), twoRings ? (std::set<uint8_t>{0, 1, 5}) : (std::set<uint8_t>{0, 1})) << p.name;
        // Corners are coarsest.
        const uint8_t coarse = twoRings ? kShadingRate2x2 : kShadingRate1x2;
        EXPECT_EQ(t[0], coarse) << p.name;
        EXPECT_EQ(t[w - 1], coarse) << p.name;
        EXPECT_EQ(t[(h - 1) * w], coarse) << p.name;
        EXPECT_EQ(t[h * w - 1], coarse) << p.name;
    }
    // Pattern 2 of the main pass keeps exactly pattern 1's full-rate texels.
    const Texels main1 = Make(createMainPassShadingRateTemplate1, w, h);
    const Texels main2 = Make(createMainPassShadingRateTemplate2, w, h);
    for (size_t i = 0; i < main1.size(); ++i) {
        ASSERT_EQ(main1[i] == 0, main2[i] == 0) << "texel " << i;
    }
    // The light pass's level 2 full-rate area lies inside its level 1 one.
    const Texels light1 = Make(createLightPassShadingRateTemplate1, w, h);
    const Texels light2 = Make(createLightPassShadingRateTemplate2, w, h);
    size_t full1 = 0, full2 = 0;
    for (size_t i = 0; i < light1.size(); ++i) {
        full1 += light1[i] == 0;
        full2 += light2[i] == 0;
        if (light2[i] == 0) {
            ASSERT_EQ(light1[i], 0) << "texel " << i;
        }
    }
    EXPECT_LT(full2, full1);
}

TEST(ShadingRatePatterns, MainPassFullRateSitsAQuarterHeightUpLightPassIsCentred) {
    const uint32_t w = 120, h = 68;
    auto rowOfFullRateCentre = [&](const Texels& t) {
        // The row with the widest full-rate run is the ellipse's centre row.
        uint32_t best = 0, bestCount = 0;
        for (uint32_t y = 0; y < h; ++y) {
            uint32_t count = 0;
            for (uint32_t x = 0; x < w; ++x) count += t[y * w + x] == 0;
            if (count > bestCount) {
                bestCount = count;
                best = y;
            }
        }
        return best;
    };
    const Texels main1 = Make(createMainPassShadingRateTemplate1, w, h);
    EXPECT_EQ(rowOfFullRateCentre(main1), (h >> 1) - (h >> 2));  // 17
    // ry = h / 2 around row 17: the top row is still partly full rate, the bottom rows are not.
    EXPECT_EQ(main1[w >> 1], 0);
    EXPECT_EQ(main1[(h - 1) * w + (w >> 1)], 1);
    EXPECT_EQ(rowOfFullRateCentre(Make(createLightPassShadingRateTemplate1, w, h)), h >> 1);
    EXPECT_EQ(rowOfFullRateCentre(Make(createLightPassShadingRateTemplate2, w, h)), h >> 1);
}

TEST(ShadingRatePatterns, MirrorSymmetry) {
    // Odd sizes centre exactly on column w >> 1 and row h >> 1.
    const uint32_t w = 121, h = 67;
    for (const NamedPattern& p : kPatterns) {
        const Texels t = Make(p.fill, w, h);
        for (uint32_t y = 0; y < h; ++y) {
            for (uint32_t x = 0; x < w; ++x) {
                ASSERT_EQ(t[y * w + x], t[y * w + (w - 1 - x)]) << p.name << " at " << x << "," << y;
            }
        }
    }
    // The light patterns are centred vertically too.
    for (Pattern fill : {createLightPassShadingRateTemplate1, createLightPassShadingRateTemplate2}) {
        const Texels t = Make(fill, w, h);
        for (uint32_t y = 0; y < h; ++y) {
            for (uint32_t x = 0; x < w; ++x) {
                ASSERT_EQ(t[y * w + x], t[(h - 1 - y) * w + x]) << x << "," << y;
            }
        }
    }
}

TEST(ShadingRatePatterns, DegenerateSizesWriteOnlyTheirTexels) {
    for (const NamedPattern& p : kPatterns) {
        // Nothing at all for an empty size or no buffer.
        for (const auto& [w, h] : {std::pair<uint32_t, uint32_t>{0, 0}, {0, 67}, {120, 0}}) {
            Texels buffer(kGuard, kUntouched);
            p.fill(buffer.data(), w, h);
            EXPECT_EQ(buffer, Texels(kGuard, kUntouched)) << p.name << " " << w << "x" << h;
        }
        p.fill(nullptr, 120, 67);

        // A single texel is the centre, so full rate.
        EXPECT_EQ(Make(p.fill, 1, 1), Texels{0}) << p.name;
        for (const auto& [w, h] : {std::pair<uint32_t, uint32_t>{1, 67}, {120, 1}, {1, 2}, {2, 1}, {3, 3}}) {
            const Texels t = Make(p.fill, w, h);
            for (const uint8_t v : t) {
                ASSERT_TRUE(v == 0 || v == 1 || v == 5) << p.name << " " << w << "x" << h;
            }
        }
    }
}

TEST(ShadingRatePatterns, TemplateIndexChoosesThePattern) {
    const uint32_t w = 40, h = 22;
    for (uint32_t k = 0; k < 4; ++k) {
        Texels chosen(size_t{w} * h, kUntouched);
        EXPECT_TRUE(fillShadingRateTemplate(k, chosen.data(), w, h));
        EXPECT_EQ(chosen, Make(kPatterns[k].fill, w, h)) << "template " << k << " is " << kPatterns[k].name;
    }
    // Templates from 4 on (levels beyond 2) are made but never filled.
    for (uint32_t k : {4u, 5u, 100u}) {
        Texels left(size_t{w} * h, kUntouched);
        EXPECT_FALSE(fillShadingRateTemplate(k, left.data(), w, h));
        EXPECT_EQ(left, Texels(size_t{w} * h, kUntouched));
    }
}

TEST(ShadingRatePatterns, ImageSizeIsTheResolutionInWholeTexels) {
    EXPECT_EQ(shadingRateImageSize({1920, 1080}, {16, 16}), (MyVkExtent2D{120, 67}));
    EXPECT_EQ(shadingRateImageSize({2400, 1080}, {8, 16}), (MyVkExtent2D{300, 67}));
    EXPECT_EQ(shadingRateImageSize({15, 15}, {16, 16}), (MyVkExtent2D{0, 0}));
    // A texel number of 0 gives 0 in that direction rather than a division by zero.
    EXPECT_EQ(shadingRateImageSize({1920, 1080}, {0, 16}), (MyVkExtent2D{0, 67}));
    EXPECT_EQ(shadingRateImageSize({1920, 1080}, {16, 0}), (MyVkExtent2D{120, 0}));
}
