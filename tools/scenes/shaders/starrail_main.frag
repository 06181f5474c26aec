#version 450
// Star Rail main pass: a G-buffer of COLOR_OUTPUTS colour targets (attachment 0 sRGB albedo,
// 1 material, the rest extra data), every one written so that no target is left undefined.

#ifndef COLOR_OUTPUTS
#define COLOR_OUTPUTS 4
#endif

layout(location = 0) in vec4 color;
layout(location = 1) in vec2 local;

layout(location = 0) out vec4 albedo;
layout(location = 1) out vec4 material;
#if COLOR_OUTPUTS > 2
layout(location = 2) out vec4 extra2;
#endif
#if COLOR_OUTPUTS > 3
layout(location = 3) out vec4 extra3;
#endif
#if COLOR_OUTPUTS > 4
layout(location = 4) out vec4 extra4;
#endif
#if COLOR_OUTPUTS > 5
layout(location = 5) out vec4 extra5;
#endif
#if COLOR_OUTPUTS > 6
layout(location = 6) out vec4 extra6;
#endif
#if COLOR_OUTPUTS > 7
layout(location = 7) out vec4 extra7;
#endif

#ifdef LOOPS
// --shader-loops: kLoops rounds of trigonometry whose result is 1 within rounding, so that the
// fragment work grows with the count while the picture stays the same.
layout(constant_id = 0) const int kLoops = 2;

float work() {
    float sum = 0.0;
    for (int i = 0; i < kLoops; ++i) {
        float a = dot(gl_FragCoord.xy, vec2(0.37, 0.71)) + float(i);
        sum += sin(a) * sin(a) + cos(a) * cos(a);
    }
    return sum / float(kLoops);
}
#endif

void main() {
    // A per-pixel ripple: shading once per 2x2 block would visibly flatten it.
    float ripple = 0.7 + 0.3 * sin(gl_FragCoord.x * 0.9) * sin(gl_FragCoord.y * 0.7);
#ifdef LOOPS
    ripple *= work();
#endif
    albedo = vec4(color.rgb * ripple, 1.0);
    material = vec4(fract(local * 3.0), ripple, 1.0);
#if COLOR_OUTPUTS > 2
    extra2 = vec4(gl_FragCoord.z, ripple, 0.5, 1.0);
#endif
#if COLOR_OUTPUTS > 3
    extra3 = vec4(color.bgr, 1.0);
#endif
#if COLOR_OUTPUTS > 4
    extra4 = vec4(local * 0.5 + 0.5, 0.0, 1.0);
#endif
#if COLOR_OUTPUTS > 5
    extra5 = vec4(ripple);
#endif
#if COLOR_OUTPUTS > 6
    extra6 = color;
#endif
#if COLOR_OUTPUTS > 7
    extra7 = vec4(1.0 - color.rgb, 1.0);
#endif
}
