// The real <cutils/properties.h> includes bionic's <sys/system_properties.h>, which glibc lacks.
// What the header takes from it (PROP_NAME_MAX, PROP_VALUE_MAX) is used by nothing of the layer,
// so for tools/android/check_binder_headers.py the header only has to exist.
#pragma once
