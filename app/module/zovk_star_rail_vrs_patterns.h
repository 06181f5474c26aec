#pragma once

#include <cstdint>

#include "app/zovk_extent.h"

namespace vulkan::zovk::app::module {

// Shading-rate attachment texel values, one byte per texel.
constexpr uint8_t kShadingRate1x1 = 0;
constexpr uint8_t kShadingRate1x2 = 1;
constexpr uint8_t kShadingRate2x2 = 5;

// The template patterns: full rate inside an ellipse, coarser towards the edges. Each writes
// width * height bytes row by row from the top; nothing for a null pointer or an empty size.
// The main pass's full-rate ellipse sits a quarter of the height above the centre, where the
// player looks; the light pass's is centred.
void createMainPassShadingRateTemplate1(void* texels, uint32_t width, uint32_t height);  // 0 inside, 1 outside
void createMainPassShadingRateTemplate2(void* texels, uint32_t width, uint32_t height);  // 0, 1, then 5
void createLightPassShadingRateTemplate1(void* texels, uint32_t width, uint32_t height);  // 0 inside, 1 outside
void createLightPassShadingRateTemplate2(void* texels, uint32_t width, uint32_t height);  // 0, 1, then 5

// Template buffer k of a resolution: 0 main 1, 1 main 2, 2 light 1, 3 light 2, so level L
// uses main template L - 1 and light template L + 1. Buffers from 4 on are left as they are;
// returns whether a pattern was written.
bool fillShadingRateTemplate(uint32_t templateIndex, void* texels, uint32_t width, uint32_t height);

// Size of the shading-rate image for a render resolution: integer division by the texel size,
// rounded up with `roundUp` so that the image covers every pixel; 0 in a direction whose
// texel size is 0.
MyVkExtent2D shadingRateImageSize(const MyVkExtent2D& resolution, const MyVkExtent2D& texelSize,
                                  bool roundUp = false);

}  // namespace vulkan::zovk::app::module
