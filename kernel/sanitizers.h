// SPDX-License-Identifier: GPL-2.0-only
//
// Which sanitizer looks on, for the few places that have to help it. gcc defines a macro of its own
// for each, clang answers a question.
#pragma once

#ifdef __has_feature
#define HOSTED_HAS_FEATURE(name) __has_feature(name)
#else
#define HOSTED_HAS_FEATURE(name) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || HOSTED_HAS_FEATURE(address_sanitizer)
#define HOSTED_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__) || HOSTED_HAS_FEATURE(thread_sanitizer)
#define HOSTED_TSAN 1
#endif
