// SPDX-License-Identifier: MIT
#ifndef ORV_DIAG_H
#define ORV_DIAG_H

#include <log4cplus/logger.h>

#include "orv/Export.h"

namespace Orv {

/// The diagnostics log that the library and the drivers write their failures to.
///
/// The logger is called "orv.diag", so an application steers it with the log4cplus properties
/// `log4cplus.logger.orv.diag` or `log4cplus.logger.orv`, or through the root logger.
class ORV_EXPORT Diag {
 public:
  /// The process-wide diagnostics logger; the reference stays valid as long as the process.
  ///
  /// While neither the logger nor one it inherits from has an appender, each call makes sure that
  /// one called "orv.diag.stderr" stands in. It writes time, level, message, file, line and
  /// function to stderr. Once the application adds an appender of its own, the next call takes
  /// the stand-in away; after a log4cplus shutdown the next call brings it back. To silence the
  /// log, set the logger's level to `OFF_LOG_LEVEL`, or add a `NullAppender`.
  ///
  /// Call it for each line rather than keep the reference, so that the above can happen. Safe from
  /// any thread, before, during and after `main`; holds no lock while it is not running. Only the
  /// first call may throw (`std::bad_alloc`).
  static log4cplus::Logger& diagLogger();
};

}  // namespace Orv

#endif  // ORV_DIAG_H
