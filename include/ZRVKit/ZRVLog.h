#pragma once
// Writes lines to the system log. Tests install a sink that captures the lines instead.

#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVKitExport.h>

#include <functional>
#include <string>
#include <string_view>

class ZRVKIT_EXPORT ZRVLog {
 public:
  using Sink = std::function<void(const std::string& line)>;

  /// Writes one line to the system log (or to the installed sink).
  static void write(std::string_view line);

  /// Formats with ZRVFormat and writes the result.
  template <class... Arguments>
  static void format(std::string_view format, const Arguments&... arguments) {
    if (isRecording()) write(ZRVFormat(format, arguments...));
  }

  /// Whether a line written now goes anywhere: to a sink, to standard error, or to a system log that is
  /// there. Lines nobody records are not even formatted.
  static bool isRecording();

  /// "-[<class> <operation>]+<line>: error <description>." — the form of failures that are only logged.
  static void methodError(std::string_view className, std::string_view operation, int line,
                          std::string_view description);

  /// Installs `sink` in place of the system log and returns the previous one; an empty sink restores syslog.
  static Sink setSink(Sink sink);

  /// Also copies every line to standard error (the zrv command's --verbose).
  static void setEchoToStandardError(bool echo);
};

/// Logs "-[<class> <operation>]+<this line>: error <description>.".
#define ZRV_LOG_METHOD_ERROR(className, operation, description) \
  ZRVLog::methodError((className), (operation), __LINE__, (description))
