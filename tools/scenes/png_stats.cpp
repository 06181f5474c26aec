// zovk-png-stats FILE: prints "WIDTH HEIGHT DISTINCT" for a PNG, DISTINCT being the number of
// distinct RGBA values, so that scripts can tell a rendered frame from a flat one.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <unordered_set>
#include <vector>

#include <png.h>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: zovk-png-stats FILE\n");
        return 2;
    }
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, argv[1])) {
        std::fprintf(stderr, "zovk-png-stats: %s: %s\n", argv[1], image.message);
        return 1;
    }
    image.format = PNG_FORMAT_RGBA;
    std::vector<png_byte> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
        std::fprintf(stderr, "zovk-png-stats: %s: %s\n", argv[1], image.message);
        return 1;
    }
    std::unordered_set<uint32_t> distinct;
    for (size_t i = 0; i + 3 < pixels.size(); i += 4) {
        distinct.insert(uint32_t(pixels[i]) | uint32_t(pixels[i + 1]) << 8 | uint32_t(pixels[i + 2]) << 16 |
                        uint32_t(pixels[i + 3]) << 24);
    }
    std::printf("%u %u %zu\n", image.width, image.height, distinct.size());
    return 0;
}
