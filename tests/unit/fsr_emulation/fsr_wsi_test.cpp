// Who serves VK_EXT_headless_surface, and which names reach the driver, by ZOVK_FSR_WSI and driver.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "fsr_wsi.h"

namespace fsr::wsi {
namespace {

using Names = std::vector<std::string>;

TEST(Wsi, PlanByModeAndDriver) {
    const Names asked = {"VK_KHR_surface", "VK_EXT_debug_utils", "VK_EXT_headless_surface"};
    const Names both = {"VK_KHR_surface", "VK_EXT_headless_surface"}, surfaceOnly = {"VK_KHR_surface"};
    struct Case {
        const char* mode;
        std::optional<Names> driver;
        Names app;
        bool serve;
        std::string down;
    } cases[] = {
        {nullptr, Names{}, asked, false, "VK_KHR_surface VK_EXT_debug_utils VK_EXT_headless_surface"},
        {"auto", both, asked, false, "VK_KHR_surface VK_EXT_debug_utils VK_EXT_headless_surface"},
        {"auto", std::nullopt, asked, false, "VK_KHR_surface VK_EXT_debug_utils VK_EXT_headless_surface"},
        {"auto", surfaceOnly, asked, true, "VK_KHR_surface VK_EXT_debug_utils"},
        {"auto", Names{}, asked, true, "VK_EXT_debug_utils"},
        {"headless", both, asked, true, "VK_KHR_surface VK_EXT_debug_utils"},
        {"headless", Names{}, {"VK_KHR_surface"}, false, "VK_KHR_surface"},
    };
    for (const Case& c : cases) {
        std::vector<const char*> app;
        for (const std::string& n : c.app) app.push_back(n.c_str());
        const InstancePlan plan = PlanInstance(*ParseMode(c.mode), c.driver, uint32_t(app.size()), app.data());
        std::string down;
        for (const char* n : plan.names) down += (down.empty() ? "" : " ") + std::string(n);
        EXPECT_EQ(plan.serve, c.serve) << (c.mode ? c.mode : "unset") << " -> " << down;
        EXPECT_EQ(down, c.down) << (c.mode ? c.mode : "unset");
    }
    for (const char* unknown : {"on", "Auto", "headless "}) EXPECT_FALSE(ParseMode(unknown)) << unknown;
}

}  // namespace
}  // namespace fsr::wsi
