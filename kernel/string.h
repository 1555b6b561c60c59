// SPDX-License-Identifier: GPL-2.0-only
//
// The memory and text functions that the kernel exports, with their C meanings.
#pragma once

#include <cstddef>

extern "C" {
void* memcpy(void* to, const void* from, std::size_t n) noexcept;
void* memmove(void* to, const void* from, std::size_t n) noexcept;
void* memset(void* to, int c, std::size_t n) noexcept;
int memcmp(const void* a, const void* b, std::size_t n) noexcept;
char* strncpy(char* to, const char* from, std::size_t n) noexcept;
int strcmp(const char* a, const char* b) noexcept;
std::size_t strlen(const char* s) noexcept;
/// The conversions used here are %d and %lu; white space in the format matches any run of it.
[[gnu::format(scanf, 2, 3)]] int sscanf(const char* text, const char* format, ...) noexcept;
}
