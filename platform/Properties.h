#pragma once

// System properties: libcutils on a device, the host shim library elsewhere. Both are reached
// through the dynamic linker, with the same three C entry points.
#ifdef __ANDROID__
#include <cutils/properties.h>
#else
#include "platform/hostshim/cutils/properties.h"
#endif
