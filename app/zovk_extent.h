#pragma once

#include <cstddef>
#include <cstdint>

#include <vulkan/vulkan_core.h>

namespace vulkan::zovk {

// A width and a height: render-area sizes, shading-rate texel sizes and resolution lists.
// Compares and assigns with the Vulkan extents directly; a 3D extent's depth is ignored.
struct MyVkExtent2D {
    uint32_t width = 0;
    uint32_t height = 0;

    constexpr MyVkExtent2D() = default;
    constexpr MyVkExtent2D(uint32_t w, uint32_t h) : width(w), height(h) {}
    constexpr MyVkExtent2D(const VkExtent2D& e) : width(e.width), height(e.height) {}
    constexpr MyVkExtent2D(const VkExtent3D& e) : width(e.width), height(e.height) {}

    MyVkExtent2D& operator=(const VkExtent2D& e) {
        width = e.width;
        height = e.height;
        return *this;
    }
    MyVkExtent2D& operator=(const VkExtent3D& e) {
        width = e.width;
        height = e.height;
        return *this;
    }

    constexpr bool operator==(const MyVkExtent2D& o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const MyVkExtent2D& o) const { return !(*this == o); }
    constexpr bool operator==(const VkExtent2D& o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const VkExtent2D& o) const { return !(*this == o); }
    constexpr bool operator==(const VkExtent3D& o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const VkExtent3D& o) const { return !(*this == o); }

    constexpr VkExtent2D ToVkExtent2D() const { return {width, height}; }
};

constexpr bool operator==(const VkExtent2D& a, const MyVkExtent2D& b) { return b == a; }
constexpr bool operator!=(const VkExtent2D& a, const MyVkExtent2D& b) { return b != a; }
constexpr bool operator==(const VkExtent3D& a, const MyVkExtent2D& b) { return b == a; }
constexpr bool operator!=(const VkExtent3D& a, const MyVkExtent2D& b) { return b != a; }

// 31 * width + height + 4805, in 64-bit unsigned arithmetic.
struct VkExtent2DHash {
    size_t operator()(const MyVkExtent2D& e) const {
        return static_cast<size_t>(uint64_t{31} * e.width + e.height + 4805);
    }
};

}  // namespace vulkan::zovk
