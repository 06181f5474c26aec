#version 450
layout(location = 0) flat in vec4 inColor;
layout(location = 0) out vec4 outColor;

void main() {
    // A gradient, so that a misplaced or missing fragment changes some pixel.
    outColor = vec4(inColor.rgb * (0.5 + 0.5 * fract(gl_FragCoord.x / 37.0 + gl_FragCoord.y / 23.0)), 1.0);
}
