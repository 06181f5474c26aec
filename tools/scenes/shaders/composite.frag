#version 450
// Final pass: tone-maps what the scene rendered into the presentable image. With QUADRANTS,
// four results share the screen, one per quarter.

#ifndef QUADRANTS
layout(set = 0, binding = 0) uniform sampler2D source;
#else
layout(set = 0, binding = 0) uniform sampler2D sources[4];
#endif

layout(location = 0) in vec2 uv;
layout(location = 0) out vec4 outColor;

void main() {
#ifndef QUADRANTS
    vec3 c = texture(source, uv).rgb;
#else
    ivec2 q = ivec2(uv * 2.0);
    int index = clamp(q.y * 2 + q.x, 0, 3);
    vec2 quv = fract(uv * 2.0);
    vec3 c;
    // Indexing a sampler array needs a dynamically uniform index: branch instead.
    if (index == 0) c = texture(sources[0], quv).rgb;
    else if (index == 1) c = texture(sources[1], quv).rgb;
    else if (index == 2) c = texture(sources[2], quv).rgb;
    else c = texture(sources[3], quv).rgb;
#endif
    outColor = vec4(c / (1.0 + c) * 1.6, 1.0);
}
