#pragma once
// What the shared library exports. It is built with hidden visibility, so only what carries
// QUORVEL_API is part of its interface: classes with virtual functions and exceptions carry
// it on the class, so that their type information and virtual tables are shared with hosts.

#if defined(__GNUC__) || defined(__clang__)
#define QUORVEL_API __attribute__((visibility("default")))
#else
#define QUORVEL_API
#endif
