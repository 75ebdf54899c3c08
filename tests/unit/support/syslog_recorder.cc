#include "support/syslog_recorder.h"

#include <cstdarg>
#include <cstdio>

namespace {

void Count(const char* function) {
  test::SyslogRecord& record = test::Syslog();
  record.calls.emplace_back(function);
  if (record.onCall) {
    record.onCall();
  }
}

__attribute__((format(printf, 2, 0))) void Record(int level, const char* format,
                                                  va_list arguments) {
  char text[4096] = {};
  std::vsnprintf(text, sizeof text, format, arguments);
  test::Syslog().lines.push_back({level, format, text});
  Count("syslog");
}

}  // namespace

// The C++ names differ from the symbols, so that they do not collide with <syslog.h>.
extern "C" {

void recorded_openlog(const char* ident, int options, int facility) __asm__("openlog");
void recorded_openlog(const char* ident, int options, int facility) {
  test::SyslogRecord& record = test::Syslog();
  record.ident = ident;
  record.options = options;
  record.facility = facility;
  Count("openlog");
}

int recorded_setlogmask(int mask) __asm__("setlogmask");
int recorded_setlogmask(int mask) {
  test::Syslog().mask = mask;
  Count("setlogmask");
  return 0xff;
}

void recorded_closelog() __asm__("closelog");
void recorded_closelog() {
  Count("closelog");
}

void recorded_syslog(int level, const char* format, ...) __asm__("syslog")
    __attribute__((format(printf, 2, 3)));
void recorded_syslog(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Record(level, format, arguments);
  va_end(arguments);
}

// What a build with _FORTIFY_SOURCE calls instead.
void recorded_syslog_chk(int level, int flag, const char* format, ...) __asm__("__syslog_chk")
    __attribute__((format(printf, 3, 4)));
void recorded_syslog_chk(int level, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Record(level, format, arguments);
  va_end(arguments);
}

}  // extern "C"

namespace test {

SyslogRecord& Syslog() {
  static SyslogRecord record;
  return record;
}

}  // namespace test
