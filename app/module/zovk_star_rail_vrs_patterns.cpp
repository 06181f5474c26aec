#include "app/module/zovk_star_rail_vrs_patterns.h"

namespace vulkan::zovk::app::module {

namespace {

// An axis-aligned ellipse around column w >> 1, `rowOffset` added to the row before the
// vertical distance is taken.
struct Ellipse {
    int64_t rowOffset;
    float rx;
    float ry;
};

// dy²/ry² + dx²/rx² <= 1 in float, so that a texel exactly on the boundary is inside. The
// squares are exact integers for every real image size; 64-bit only keeps huge ones defined.
bool Inside(const Ellipse& e, int64_t y, int64_t dx) {
    const int64_t dy = y + e.rowOffset;
    const float sum = static_cast<float>(dy * dy) / (e.ry * e.ry) + static_cast<float>(dx * dx) / (e.rx * e.rx);
    return sum <= 1.0f;
}

// Writes `inner` inside the first ellipse, `ring` inside the second (if any), else `rest`.
void Fill(void* texels, uint32_t width, uint32_t height, const Ellipse& inner, const Ellipse* outer, uint8_t ring,
          uint8_t rest) {
    if (texels == nullptr || width == 0 || height == 0) {
        return;
    }
    uint8_t* out = static_cast<uint8_t*>(texels);
    const int64_t centreX = width >> 1;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const int64_t dx = static_cast<int64_t>(x) - centreX;
            uint8_t value = rest;
            if (Inside(inner, y, dx)) {
                value = kShadingRate1x1;
            } else if (outer != nullptr && Inside(*outer, y, dx)) {
                value = ring;
            }
            *out++ = value;
        }
    }
}

// Semi-axes are worked out in double and only then rounded to float.
float Axis(double value) { return static_cast<float>(value); }

Ellipse MainInner(uint32_t w, uint32_t h) {
    return {static_cast<int64_t>(h >> 2) - static_cast<int64_t>(h >> 1), Axis(w / 6.0), Axis(h * 0.5)};
}

int64_t Centred(uint32_t h) { return -static_cast<int64_t>(h >> 1); }

}  // namespace

void createMainPassShadingRateTemplate1(void* texels, uint32_t width, uint32_t height) {
    Fill(texels, width, height, MainInner(width, height), nullptr, kShadingRate1x2, kShadingRate1x2);
}

void createMainPassShadingRateTemplate2(void* texels, uint32_t width, uint32_t height) {
    const Ellipse outer{Centred(height), Axis(width / 3.0), Axis(height * 0.3 + height / 6.0)};
    Fill(texels, width, height, MainInner(width, height), &outer, kShadingRate1x2, kShadingRate2x2);
}

void createLightPassShadingRateTemplate1(void* texels, uint32_t width, uint32_t height) {
    const Ellipse inner{Centred(height), Axis(width * 0.25), Axis(height * 0.25 + height * 0.125)};
    Fill(texels, width, height, inner, nullptr, kShadingRate1x2, kShadingRate1x2);
}

void createLightPassShadingRateTemplate2(void* texels, uint32_t width, uint32_t height) {
    const Ellipse inner{Centred(height), Axis(width / 6.0), Axis(height / 6.0 + height / 12.0)};
    const Ellipse outer{Centred(height), Axis(width / 3.0), Axis(height / 3.0 + height / 6.0)};
    Fill(texels, width, height, inner, &outer, kShadingRate1x2, kShadingRate2x2);
}

bool fillShadingRateTemplate(uint32_t templateIndex, void* texels, uint32_t width, uint32_t height) {
    switch (templateIndex) {
        case 0:
            createMainPassShadingRateTemplate1(texels, width, height);
            return true;
        case 1:
            createMainPassShadingRateTemplate2(texels, width, height);
            return true;
        case 2:
            createLightPassShadingRateTemplate1(texels, width, height);
            return true;
        case 3:
            createLightPassShadingRateTemplate2(texels, width, height);
            return true;
        default:
            return false;
    }
}

MyVkExtent2D shadingRateImageSize(const MyVkExtent2D& resolution, const MyVkExtent2D& texelSize, bool roundUp) {
    const auto texels = [roundUp](uint32_t pixels, uint32_t texel) -> uint32_t {
        if (texel == 0) return 0;
        return pixels / texel + (roundUp && pixels % texel != 0 ? 1 : 0);
    };
    return {texels(resolution.width, texelSize.width), texels(resolution.height, texelSize.height)};
}

}  // namespace vulkan::zovk::app::module
