#include "support/syslog_recorder.h"

#include <cstdarg>
#include <cstdio>

namespace {

__attribute__((format(printf, 2, 0))) void Record(int level, const char* format,
                                                  va_list arguments) {
  char text[4096] = {};
  std::vsnprintf(text, sizeof text, format, arguments);
  test::SyslogRecord& record = test::Syslog();
  record.calls.emplace_back("syslog");
  record.lines.push_back({level, format, text});
  if (record.onLine) {
    record.onLine();
  }
}

}  // namespace

// The C++ names differ from the symbols, so that they do not collide with <syslog.h>.
extern "C" {

void recorded_openlog(const char* ident, int options, int facility) __asm__("openlog");
void recorded_openlog(const char* ident, int options, int facility) {
  test::SyslogRecord& record = test::Syslog();
  record.calls.emplace_back("openlog");
  record.ident = ident;
  record.options = options;
  record.facility = facility;
}

int recorded_setlogmask(int mask) __asm__("setlogmask");
int recorded_setlogmask(int mask) {
  test::SyslogRecord& record = test::Syslog();
  record.calls.emplace_back("setlogmask");
  record.mask = mask;
  return 0xff;
}

void recorded_closelog() __asm__("closelog");
void recorded_closelog() {
  test::Syslog().calls.emplace_back("closelog");
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
