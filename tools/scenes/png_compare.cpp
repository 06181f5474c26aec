// zovk-png-compare REFERENCE FRAME [DIFF]: how far FRAME is from REFERENCE, as the run command
// reports a VRS level against level 0. Prints "PSNR MAXDIFF DIFFERING": the peak signal-to-noise
// ratio over the RGB channels in dB ("inf" for identical frames), the largest difference of one
// channel of one pixel (0-255), and how many pixels differ at all. With DIFF it writes the
// difference image: black where equal, the per-pixel largest channel difference scaled by 8 in
// red elsewhere, over a dimmed copy of the reference, so that small errors show.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <png.h>

namespace {

struct Image {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<png_byte> rgba;
};

bool Read(const char* path, Image& out) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path)) {
        std::fprintf(stderr, "zovk-png-compare: %s: %s\n", path, image.message);
        return false;
    }
    image.format = PNG_FORMAT_RGBA;
    out.rgba.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.rgba.data(), 0, nullptr)) {
        std::fprintf(stderr, "zovk-png-compare: %s: %s\n", path, image.message);
        return false;
    }
    out.width = image.width;
    out.height = image.height;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: zovk-png-compare REFERENCE FRAME [DIFF]\n");
        return 2;
    }
    Image reference, frame;
    if (!Read(argv[1], reference) || !Read(argv[2], frame)) {
        return 1;
    }
    if (reference.width != frame.width || reference.height != frame.height) {
        std::fprintf(stderr, "zovk-png-compare: %ux%u against %ux%u\n", reference.width, reference.height,
                     frame.width, frame.height);
        return 1;
    }
    const size_t pixels = size_t{reference.width} * reference.height;
    double squares = 0;
    int largest = 0;
    size_t differing = 0;
    Image diff = reference;
    for (size_t p = 0; p < pixels; ++p) {
        int pixelLargest = 0;
        for (size_t c = 0; c < 3; ++c) {
            const int d = std::abs(int(reference.rgba[4 * p + c]) - int(frame.rgba[4 * p + c]));
            squares += double(d) * d;
            pixelLargest = std::max(pixelLargest, d);
        }
        largest = std::max(largest, pixelLargest);
        differing += pixelLargest != 0;
        png_byte* out = &diff.rgba[4 * p];
        const png_byte dimmed = png_byte((out[0] + out[1] + out[2]) / 12);
        out[0] = pixelLargest != 0 ? png_byte(std::min(255, 64 + 8 * pixelLargest)) : dimmed;
        out[1] = out[2] = dimmed;
        out[3] = 255;
    }
    const double mse = squares / (3.0 * double(pixels));
    if (mse == 0) {
        std::printf("inf 0 0\n");
    } else {
        std::printf("%.3f %d %zu\n", 10.0 * std::log10(255.0 * 255.0 / mse), largest, differing);
    }
    if (argc == 4) {
        png_image image = {};
        image.version = PNG_IMAGE_VERSION;
        image.width = diff.width;
        image.height = diff.height;
        image.format = PNG_FORMAT_RGBA;
        if (!png_image_write_to_file(&image, argv[3], 0, diff.rgba.data(), 0, nullptr)) {
            std::fprintf(stderr, "zovk-png-compare: %s: %s\n", argv[3], image.message);
            return 1;
        }
    }
    return 0;
}
