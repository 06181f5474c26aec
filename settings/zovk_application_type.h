#pragma once

#include <cstdint>

namespace vulkan {

// The application the layer was loaded into, identified by its process name.
enum ZoVkApplicationType : uint32_t {
    ZOVK_APPLICATION_NONE = 0,
    ZOVK_APPLICATION_ANTUTU = 1,
    ZOVK_APPLICATION_STAR_RAIL = 2,
};

}  // namespace vulkan
