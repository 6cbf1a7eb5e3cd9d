#pragma once

// Host build only: the three property calls of the platform's libcutils, which Debian's
// packaging does not provide. Declared exactly as the platform declares them.

#include <stdint.h>
#include <sys/cdefs.h>

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92
#ifndef PROP_VALUE_MAX
#define PROP_VALUE_MAX 92
#endif

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `key` (or `default_value` when it is unset or empty) into `value`, which
// holds PROPERTY_VALUE_MAX bytes; returns the length copied.
int property_get(const char* key, char* value, const char* default_value);

// Sets `key` to `value`; 0 on success, negative when the value is too long or cannot be stored.
int property_set(const char* key, const char* value);

// The boolean reading of `key`: 1/y/yes/on/true and 0/n/no/off/false, else `default_value`.
int8_t property_get_bool(const char* key, int8_t default_value);

#ifdef __cplusplus
}
#endif
