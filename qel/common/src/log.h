#ifndef GAKPPC_LOG_H
#define GAKPPC_LOG_H

/// @file
/// Log lines of the library's classes. Each call composes one line from the caller's message, source file, line,
/// function and thread id and hands it to the platform's device logging library under module id 38.
///
/// Any thread may call these functions at any time, also while the process exits. They keep all buffers on the caller's
/// stack (about 16 KiB), never wait, and never fail: a null function name, file name or format, a message of more than
/// 8191 characters and a line of more than 8191 characters are silently dropped. They raise nothing. They leave
/// errno as they found it, whatever the platform's library does to it, and %m in a message is the text of the errno
/// with which they were called.

#include <atomic>
#include <cstdint>

#include "gakppc_export.h"

/// Writes a plain line, at level INFO: "%s,[%s:%d:%s]%d Msg: running ok\\n" of message, file, line, function, thread
/// id.
///
/// @param funcName  The caller's function.
/// @param fileName  The caller's source file.
/// @param line      The caller's line.
/// @param fmt       The message, as printf takes it, with its arguments.
GAKPPC_API void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

/// Writes a line with a status number, whose bits 12 to 15 give the level and whose text ends the line. Numbers below
/// the current level or with a level above 4 (FATAL) are dropped before anything is composed; FATAL is written as INFO.
///
/// @param funcName  The caller's function.
/// @param fileName  The caller's source file.
/// @param line      The caller's line.
/// @param status    The status number.
/// @param fmt       The message, as printf takes it, with its arguments.
GAKPPC_API void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, uint32_t status, const char* fmt,
                             ...) __attribute__((cold, format(printf, 5, 6)));

/// Writes an event, whatever the level: "%s,[%s:%d:%s]%d\\n" of message, file, line, function, thread id.
///
/// @param funcName  The caller's function.
/// @param fileName  The caller's source file.
/// @param line      The caller's line.
/// @param fmt       The message, as printf takes it, with its arguments.
GAKPPC_API void QEL_EVENT_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((cold, format(printf, 4, 5)));

/// Writes a trace, if the sink says that events are on: the line of an event, with a key/value pair.
///
/// @param funcName    The caller's function.
/// @param fileName    The caller's source file.
/// @param line        The caller's line.
/// @param statusText  The value of the key "status".
/// @param fmt         The message, as printf takes it, with its arguments.
GAKPPC_API void QEL_TRACE_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* statusText,
                                   const char* fmt, ...) __attribute__((format(printf, 5, 6)));

/// Writes an operation log line, whatever the level: "[%s:%d:%s]%d %s\\n" of file, line, function, thread id, message.
///
/// @param funcName  The caller's function.
/// @param fileName  The caller's source file.
/// @param line      The caller's line.
/// @param fmt       The message, as printf takes it, with its arguments.
GAKPPC_API void QEL_OPLOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

namespace qel {

/// The one logging instance: the current level and the way from a composed line to the platform's sinks. Never
/// destroyed; any thread may call anything at any time.
class GAKPPC_API QELLog {
public:
    /// @return The instance, initialised: the first call in a process runs Init().
    static QELLog& GetInstance();

    /// Opens the platform's logging library and reads its level, once in the life of the process; later calls do
    /// nothing. GetInstance() calls it; nobody else needs to.
    void Init();

    /// Asks the platform for the level of this module.
    ///
    /// @return DEBUG (0), INFO (1), WARN (2) or ERROR (3); anything else that it says counts as INFO.
    uint32_t QELGetCurLogLevel();

    /// Reads the level again. For the embedding process: the library never calls it.
    ///
    /// @return The level.
    int QELRefreshLevel();

    /// Whether lines with a status number are let through.
    ///
    /// @param status  The status number.
    /// @return Whether its level field is at least the current level and at most 4.
    bool QELLogOutputEnable(uint32_t status);

    /// Hands one composed line to the sink of its level. DEBUG, INFO, WARN and trace lines are written only if the sink
    /// says that the level is on.
    ///
    /// @param moduleId    The module that the line is written under.
    /// @param level       0 to 3 DEBUG to ERROR, 5 event, 6 operation log, 7 trace, all others INFO.
    /// @param text        The line. Null: nothing is written.
    /// @param statusText  The value of the key "status"; used at level 7 only.
    void QELSaveLog(int moduleId, uint32_t level, const char* text, const char* statusText);

    /// Not copied: there is one.
    QELLog(const QELLog&) = delete;
    /// Not copied: there is one.
    QELLog& operator=(const QELLog&) = delete;

private:
    QELLog() = default;
    ~QELLog() = default;

    std::atomic<uint32_t> currentLevel_{1};
};

}  // namespace qel

#endif
