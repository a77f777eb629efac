// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_EXPORT_H
#define VARNEL_COMMON_EXPORT_H

/// Marks what `libvarnel.so.1` offers; everything else stays hidden in the library.
#define VARNEL_EXPORT __attribute__((visibility("default")))

#endif
