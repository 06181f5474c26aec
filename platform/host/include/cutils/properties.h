#pragma once

// Host stand-in for the one libcutils property call the layer makes. The platform's own
// header needs bionic's system properties, which Linux hosts do not have.
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int8_t property_get_bool(const char* key, int8_t default_value);

#ifdef __cplusplus
}
#endif
