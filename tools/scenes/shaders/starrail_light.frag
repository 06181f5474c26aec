#version 450
// Star Rail light pass. Mode 0 resolves the G-buffer of the main pass; mode 1 adds a round
// light sprite; mode 2 adds a flat-shaded mesh (the ring of many small triangles).

layout(set = 0, binding = 0) uniform sampler2D gAlbedo;
layout(set = 0, binding = 1) uniform sampler2D gMaterial;

layout(push_constant) uniform Draw {
    vec4 transform;
    vec4 tint;
    vec4 step;
} draw;

layout(location = 0) in vec4 color;
layout(location = 1) in vec2 local;

layout(location = 0) out vec4 lit;

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
    float ripple = 0.75 + 0.25 * sin(gl_FragCoord.x * 1.3 + gl_FragCoord.y * 0.4);
    int mode = int(draw.tint.a);
    if (mode == 0) {
        ivec2 texel = ivec2(gl_FragCoord.xy);
        vec3 albedo = texelFetch(gAlbedo, texel, 0).rgb;
        vec4 material = texelFetch(gMaterial, texel, 0);
        lit = vec4(albedo * (0.45 + 0.55 * material.b) + 0.08 * vec3(material.rg, 0.0), 1.0);
    } else if (mode == 1) {
        float falloff = max(0.0, 1.0 - dot(local, local));
        lit = vec4(color.rgb * falloff * falloff * ripple, 1.0);
    } else {
        lit = vec4(color.rgb * ripple * 0.6, 1.0);
    }
#ifdef LOOPS
    lit.rgb *= work();
#endif
}
