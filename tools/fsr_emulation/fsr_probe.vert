#version 450
// Three shapes picked by instance: a triangle, a quad (indexed) and a triangle partly behind the first.
const vec2 kCorners[12] = vec2[](
    vec2(-0.9, -0.8), vec2(0.5, -0.9), vec2(-0.4, 0.8), vec2(0.0, 0.0),
    vec2(-0.2, -0.3), vec2(0.8, -0.3), vec2(-0.2, 0.6), vec2(0.8, 0.6),
    vec2(-0.6, -0.1), vec2(0.9, 0.2), vec2(0.1, 0.95), vec2(0.0, 0.0));
const float kDepth[3] = float[](0.5, 0.3, 0.6);
const vec4 kColor[3] = vec4[](vec4(0.9, 0.1, 0.1, 1.0), vec4(0.1, 0.8, 0.2, 1.0), vec4(0.2, 0.3, 0.9, 1.0));

layout(location = 0) flat out vec4 outColor;

void main() {
    int shape = gl_InstanceIndex;
    gl_Position = vec4(kCorners[shape * 4 + gl_VertexIndex], kDepth[shape], 1.0);
    outColor = kColor[shape];
}
