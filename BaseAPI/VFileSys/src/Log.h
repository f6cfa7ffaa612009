// The one way in which the library writes to the product's log.
#ifndef VFILESYS_LOG_H
#define VFILESYS_LOG_H

#include "VLogger.h"

// Numbers, since the names of the levels are the logger's own business.
constexpr LogLevel kLogError = static_cast<LogLevel>(1);
constexpr LogLevel kLogInfo = static_cast<LogLevel>(3);

// A macro, because only a macro knows its caller's file and line. `function` is a text, never __func__: log
// readers search for the name of the operation, whichever helper the line stands in. Save errno before using
// this macro: GetInstance() runs before the arguments are read.
#define VFS_LOG(function, level, ...) \
    VLogger::GetInstance()->Log(__FILE__, __LINE__, (function), " ", "", (level), __VA_ARGS__)

#endif
