// zovk-vrs-patterns WIDTH HEIGHT: prints the four Star Rail template patterns of a WIDTH x HEIGHT
// texel image as hex, one per line (main 1, main 2, light 1, light 2), so that integration tests
// can compare the bytes uploaded into the shading-rate images with what the layer computes.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "app/module/zovk_star_rail_vrs_patterns.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: zovk-vrs-patterns WIDTH HEIGHT\n");
        return 2;
    }
    const auto width = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
    const auto height = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    std::vector<unsigned char> texels(static_cast<size_t>(width) * height);
    for (uint32_t k = 0; k < 4; ++k) {
        vulkan::zovk::app::module::fillShadingRateTemplate(k, texels.data(), width, height);
        for (unsigned char t : texels) std::printf("%02x", t);
        std::printf("\n");
    }
    return 0;
}
