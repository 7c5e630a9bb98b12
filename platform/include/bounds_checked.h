#ifndef PLATFORM_BOUNDS_CHECKED_H
#define PLATFORM_BOUNDS_CHECKED_H

/*
 * memcpy_s, memset_s, strcpy_s, strncpy_s and sprintf_s under their plain names.
 *
 * Off the camera they come from libsafec, whose folder and feature macro changed between its releases.
 * A camera puts a header of its own in this one's place.
 *
 * The string functions refuse more than RSIZE_MAX_STR bytes (32 KiB in libsafec) and then copy nothing: text that
 * can be longer goes through memcpy_s, and every caller looks at the result.
 */

#ifdef __GNUC__
#pragma GCC system_header
#endif

#ifndef HAVE_C99
#define HAVE_C99 1
#endif

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#if __has_include(<safeclib/safe_mem_lib.h>)
#include <safeclib/safe_mem_lib.h>
#include <safeclib/safe_str_lib.h>
#else
#include <libsafec/safe_mem_lib.h>
#include <libsafec/safe_str_lib.h>
#endif

#endif
