// Platform layer: the few services whose form differs between the systems the library runs on.
// Nothing else in the library uses platform #ifdefs.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Path of the running executable into buf (NUL-terminated). 1 on success, 0 on failure.
int kx_platform_exe_path(char *buf, size_t size);

// Wall clock in milliseconds since the epoch.
int64_t kx_platform_wall_ms(void);

// Flags for send() that keep a write to a closed peer from raising SIGPIPE (IPv4 and IPv6 alike).
int kx_platform_send_flags(void);

// Per-socket counterpart of kx_platform_send_flags, for systems that need a socket option instead
// of a send flag. Call it on every new or adopted stream socket. 1 on success, 0 on failure.
int kx_platform_nosigpipe(int fd);
