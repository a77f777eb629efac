// SPDX-License-Identifier: MIT
#ifndef ORV_EXPORT_H
#define ORV_EXPORT_H

/// Marks what liborv.so.1 exports; everything else in it is hidden.
#define ORV_EXPORT __attribute__((visibility("default")))

#endif  // ORV_EXPORT_H
