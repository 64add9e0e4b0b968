#pragma once
// Basic kernel types shared by every host service and by the driver.
//
// The host is a user-space stand-in for the kernel services the exFAT driver
// calls. Its surface keeps the kernel's names and C-style argument lists so
// that driver code reads like kernel code; inside, it is ordinary C++.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

typedef int64_t daddr64_t;     // block number on a device or in a file
typedef uint64_t user_addr_t;  // an address in the caller's space (one space here)
typedef uint64_t user_size_t;
typedef int64_t user_ssize_t;
typedef int errno_t;
typedef char* caddr_t;
typedef uint32_t upl_offset_t;
typedef uint32_t upl_size_t;

typedef struct vnode* vnode_t;
typedef struct mount* mount_t;
typedef struct buf* buf_t;
typedef struct uio* uio_t;
typedef struct vfs_context* vfs_context_t;
typedef struct ucred* kauth_cred_t;
typedef struct upl* upl_t;
typedef struct vfstable* vfstable_t;
typedef struct thread* thread_t;

#define NULLVP ((vnode_t) nullptr)
#define NOCRED ((kauth_cred_t) nullptr)

// Private error codes that travel inside the kernel and never reach a user.
// ERESTART asks the system-call layer to redo the call from the lookup on;
// EJUSTRETURN tells a caller that the operation did what it had to and the
// caller should return without error (lookup: "the name is free to create").
#ifdef ERESTART
#undef ERESTART  // Linux's ERESTART (85) is not the kernel-internal code
#endif
#define ERESTART (-1)
#define EJUSTRETURN (-2)

// Open-file mode bits.
#define FREAD 0x0001
#define FWRITE 0x0002

// Sleep priorities (only recorded; the host has no scheduler classes).
#define PINOD 8
#define PWAIT 32

// Malloc types used with _MALLOC/_FREE/hashinit.
#define M_TEMP 80
#define M_WAITOK 0x0000
#define M_NOWAIT 0x0001
#define M_ZERO 0x0004

// I/O flags passed to read/write and the cluster layer.
#define IO_UNIT 0x0001
#define IO_APPEND 0x0002
#define IO_SYNC 0x0004
#define IO_NODELOCKED 0x0008
#define IO_NDELAY 0x0010
#define IO_NOZEROFILL 0x0020
#define IO_TAILZEROFILL 0x0040
#define IO_HEADZEROFILL 0x0080
#define IO_NOZEROVALID 0x0100
#define IO_NOZERODIRTY 0x0200
#define IO_CLOSE 0x0400
#define IO_NOCACHE 0x0800
#define IO_RAOFF 0x1000
#define IO_DEFWRITE 0x2000
#define IO_PASSIVE 0x4000

// Wait modes of sync and fsync.
#define MNT_WAIT 1
#define MNT_NOWAIT 2
