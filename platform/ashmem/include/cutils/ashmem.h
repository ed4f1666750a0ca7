// SPDX-License-Identifier: Apache-2.0
// Host stand-in for libcutils' ashmem calls: regions are sealed memfds.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// A new region of size bytes named name, readable and writable; negative with errno on failure.
int ashmem_create_region(const char* name, size_t size);
// Sets the region's protection; without PROT_WRITE the region can no longer be mapped writable.
int ashmem_set_prot_region(int fd, int prot);
// 1 for a region made by ashmem_create_region, 0 for another descriptor, -1 for a bad one.
int ashmem_valid(int fd);

#ifdef __cplusplus
}
#endif
