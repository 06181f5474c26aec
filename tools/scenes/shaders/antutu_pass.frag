#version 450
// AnTuTu scene passes: vertex colour with a per-pixel pattern, so that coarser shading rates
// change the pixels.

layout(push_constant) uniform Draw {
    vec4 transform;
    vec4 tint;
    vec4 step;
} draw;

layout(location = 0) in vec4 color;
layout(location = 1) in vec2 local;

layout(location = 0) out vec4 outColor;

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
    // A checker and a triangle wave: per-pixel detail without transcendentals.
    float checker = float((int(gl_FragCoord.x) ^ int(gl_FragCoord.y)) & 1);
    float wave = 0.75 + 0.5 * abs(fract((gl_FragCoord.x + gl_FragCoord.y) * 0.13) - 0.5);
    vec3 rgb = color.rgb * wave * (0.85 + 0.15 * checker);
    outColor = vec4(rgb * (1.0 + 0.25 * dot(local, local)), 1.0);
#ifdef LOOPS
    outColor.rgb *= work();
#endif
}
