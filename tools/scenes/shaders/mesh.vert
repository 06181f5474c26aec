#version 450
// Shared by every mesh draw of the scenes. A draw places its mesh with a push-constant
// transform; instances step across a grid of 8 columns.

layout(location = 0) in vec3 inPosition;  // xy in [-1, 1] mesh space, z depth
layout(location = 1) in vec4 inColor;

layout(push_constant) uniform Draw {
    vec4 transform;  // offset xy, scale zw
    vec4 tint;       // rgb multiplier, a: fragment mode
    vec4 step;       // instance step xy (clip units), z: depth step per instance
} draw;

layout(location = 0) out vec4 color;
layout(location = 1) out vec2 local;  // mesh-space position, for radial falloff

void main() {
    vec2 cell = vec2(gl_InstanceIndex % 8, gl_InstanceIndex / 8);
    vec2 xy = inPosition.xy * draw.transform.zw + draw.transform.xy + cell * draw.step.xy;
    float depth = clamp(inPosition.z + float(gl_InstanceIndex) * draw.step.z, 0.0, 1.0);
    // Instances shift hue so that repeated sprites are told apart.
    float shift = float(gl_InstanceIndex) * 0.37;
    vec3 rgb = inColor.rgb * draw.tint.rgb;
    color = vec4(mix(rgb, rgb.gbr, fract(shift)), inColor.a);
    local = inPosition.xy;
    gl_Position = vec4(xy, depth, 1.0);
}
