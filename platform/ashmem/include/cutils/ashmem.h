// SPDX-License-Identifier: Apache-2.0
// Host stand-in for libcutils' ashmem API, declared as libcutils declares it. Regions are sealed
// memfds, with the results that libcutils gives for memfd-backed ashmem.
#pragma once

#include <stddef.h>

#ifndef __ASHMEMIOC
#define ASHMEM_NAME_LEN 256
#define ASHMEM_NOT_PURGED 0
#define ASHMEM_WAS_PURGED 1
#define ASHMEM_IS_UNPINNED 0
#define ASHMEM_IS_PINNED 1
#endif

#ifdef __cplusplus
extern "C" {
#endif

// 1 for a region made by ashmem_create_region, 0 for another descriptor, -1 for a bad one.
int ashmem_valid(int fd);
// A new region of size bytes named name ("none" when null), readable and writable, closed on
// exec; -1 with errno on failure.
int ashmem_create_region(const char* name, size_t size);
// Sets the region's protection; without PROT_WRITE the region can no longer be mapped writable,
// and PROT_WRITE cannot be given back (-1, EINVAL).
int ashmem_set_prot_region(int fd, int prot);
// PROT_READ | PROT_WRITE | PROT_EXEC, or PROT_READ once write protection was dropped; -1 with
// errno.
int ashmem_get_prot_region(int fd);
// Memory of a region is never purged: ASHMEM_NOT_PURGED, or -1 with errno for a bad descriptor.
int ashmem_pin_region(int fd, size_t offset, size_t len);
// ASHMEM_IS_UNPINNED, or -1 with errno for a bad descriptor.
int ashmem_unpin_region(int fd, size_t offset, size_t len);
// The region's size in bytes, or -1 with errno.
int ashmem_get_size_region(int fd);

#ifdef __cplusplus
}
#endif
