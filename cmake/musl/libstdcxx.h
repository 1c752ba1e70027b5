// Included before every file that is compiled against musl (cmake/toolchains/musl.cmake): what
// libstdc++'s headers, configured for glibc, ask of the C library that musl has by another name or
// not at all.
#pragma once
#pragma GCC system_header
#include <features.h>
#include <locale.h>

#define __GLIBC_PREREQ(major, minor) 0
typedef locale_t __locale_t;

// The character classes of <ctype.h>: std::ctype_base makes its masks of these.
#define _ISupper 0x001
#define _ISlower 0x002
#define _ISalpha 0x004
#define _ISdigit 0x008
#define _ISxdigit 0x010
#define _ISspace 0x020
#define _ISprint 0x040
#define _ISgraph 0x080
#define _IScntrl 0x100
#define _ISpunct 0x200
#define _ISalnum (_ISalpha | _ISdigit)
#define _ISblank 0x400

#include <bits/c++config.h>
#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
