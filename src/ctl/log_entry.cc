#include "ctl/log_entry.h"

#include <array>

#include <time.h>

#include "ctl/text.h"
#include "util/log.h"

namespace tavlo::ctl {

namespace {

constexpr int64_t kSecond = 1000;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;

struct Level {
  std::string_view prefix;
  int number;
};

constexpr std::array<Level, 3> kLevels = {{
    {"ERROR: ", Orx::Log::kError},
    {"INFO: ", Orx::Log::kInfo},
    {"DEBUG: ", Orx::Log::kDebug},
}};

// What is left of a text; each step takes something off its front, or fails and takes nothing.
class Rest {
 public:
  explicit Rest(std::string_view text) : text_(text) {}

  std::string_view Text() const { return text_; }
  bool IsEmpty() const { return text_.empty(); }

  bool Skip(std::string_view literal) {
    if (!BeginsWith(text_, literal)) {
      return false;
    }
    text_.remove_prefix(literal.size());
    return true;
  }

  bool Number(size_t digits, int smallest, int largest, int* number) {
    if (text_.size() < digits) {
      return false;
    }
    int value = 0;
    for (const char digit : text_.substr(0, digits)) {
      if (digit < '0' || digit > '9') {
        return false;
      }
      value = 10 * value + (digit - '0');
    }
    text_.remove_prefix(digits);
    *number = value;
    return value >= smallest && value <= largest;
  }

  bool Hexadecimal(std::string_view* number) {
    constexpr size_t kMostDigits = 16;
    const size_t end = text_.find_first_not_of("0123456789abcdef");
    if (end == 0 || end == text_.npos || end > kMostDigits) {
      return false;
    }
    *number = text_.substr(0, end);
    text_.remove_prefix(end);
    return true;
  }

 private:
  std::string_view text_;
};

bool IsLeapYear(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int64_t DaysSince1970(int year, int month, int day) {
  constexpr std::array<int, 12> kDaysBefore = {0,   31,  59,  90,  120, 151,
                                               181, 212, 243, 273, 304, 334};
  const int last = year - 1;
  const int leapDays = last / 4 - last / 100 + last / 400 - 477;  // so many were before 1970
  const int leapDay = month > 2 && IsLeapYear(year) ? 1 : 0;
  return int64_t{365} * (year - 1970) + leapDays + leapDay +
         kDaysBefore.at(static_cast<size_t>(month - 1)) + day - 1;
}

bool TakeDate(Rest* rest, int64_t* time) {
  int year = 0;
  int month = 0;
  int day = 0;
  const bool taken = rest->Number(4, 1, 9999, &year) && rest->Skip("-") &&
                     rest->Number(2, 1, 12, &month) && rest->Skip("-") &&
                     rest->Number(2, 1, 31, &day);
  if (taken) {
    *time = DaysSince1970(year, month, day) * kDay;
  }
  return taken;
}

bool TakeHoursAndMinutes(Rest* rest, int64_t* time) {
  int hours = 0;
  int minutes = 0;
  const bool taken =
      rest->Number(2, 0, 23, &hours) && rest->Skip(":") && rest->Number(2, 0, 59, &minutes);
  *time += hours * kHour + minutes * kMinute;
  return taken;
}

bool TakeSeconds(Rest* rest, int64_t* time) {
  int seconds = 0;
  const bool taken = rest->Skip(":") && rest->Number(2, 0, 60, &seconds);
  *time += seconds * kSecond;
  return taken;
}

bool TakeTime(Rest* rest, int64_t* time) {
  int milliseconds = 0;
  const bool taken = TakeDate(rest, time) && rest->Skip(" ") && TakeHoursAndMinutes(rest, time) &&
                     TakeSeconds(rest, time) && rest->Skip(".") &&
                     rest->Number(3, 0, 999, &milliseconds);
  *time += milliseconds;
  return taken;
}

// "[4d2.7f9c5a01c0] "
bool TakeThread(Rest* rest, LogEntry* entry) {
  if (!rest->Skip("[")) {
    return false;
  }
  const std::string_view whole = rest->Text();
  std::string_view thread;
  if (!rest->Hexadecimal(&entry->process) || !rest->Skip(".") || !rest->Hexadecimal(&thread)) {
    return false;
  }
  entry->thread = whole.substr(0, entry->process.size() + 1 + thread.size());
  return rest->Skip("] ");
}

bool TakeLevel(Rest* rest, int* number) {
  for (const Level& level : kLevels) {
    if (rest->Skip(level.prefix)) {
      *number = level.number;
      return true;
    }
  }
  return false;
}

std::optional<LogEntry> ParseFromTime(std::string_view line) {
  constexpr std::string_view kEndOfFunction = ": ";
  Rest rest(line);
  LogEntry entry = {};
  if (!TakeTime(&rest, &entry.time) || !rest.Skip(" ") || !TakeThread(&rest, &entry) ||
      !TakeLevel(&rest, &entry.level)) {
    return std::nullopt;
  }
  entry.text = rest.Text();
  const size_t end = entry.text.find(kEndOfFunction);
  if (end != entry.text.npos) {
    entry.function = entry.text.substr(0, end);
    entry.text.remove_prefix(end + kEndOfFunction.size());
  }
  return entry;
}

std::optional<int64_t> ParseMoment(std::string_view text) {
  Rest rest(text);
  int64_t time = 0;
  if (!TakeDate(&rest, &time)) {
    return std::nullopt;
  }
  const bool hasTime = !rest.IsEmpty();
  if (hasTime && !(rest.Skip(" ") && TakeHoursAndMinutes(&rest, &time))) {
    return std::nullopt;
  }
  const bool hasSeconds = !rest.IsEmpty();
  if (hasSeconds && !TakeSeconds(&rest, &time)) {
    return std::nullopt;
  }
  return rest.IsEmpty() ? std::optional<int64_t>(time) : std::nullopt;
}

int64_t LengthOf(char unit) {
  switch (unit) {
    case 's':
      return kSecond;
    case 'm':
      return kMinute;
    case 'h':
      return kHour;
    case 'd':
      return kDay;
    default:
      return 0;
  }
}

// "30m"
std::optional<int64_t> ParseDuration(std::string_view text) {
  constexpr size_t kMostDigits = 6;
  if (text.size() < 2 || text.size() > kMostDigits + 1 || LengthOf(text.back()) == 0) {
    return std::nullopt;
  }
  int number = 0;
  Rest rest(text);
  return rest.Number(text.size() - 1, 0, 999999, &number)
             ? std::optional<int64_t>(number * LengthOf(text.back()))
             : std::nullopt;
}

}  // namespace

bool LogEntry::IsRequest() const {
  return level == Orx::Log::kInfo && IsOf("AgentHost::DispatchRequest");
}

bool LogEntry::IsStart() const {
  return level == Orx::Log::kInfo && text == "tavlo started";
}

std::optional<LogEntry> ParseLogEntry(std::string_view line) {
  constexpr std::string_view kTag = "tavlo[";
  constexpr std::string_view kEndOfTag = "]: ";
  if (auto entry = ParseFromTime(line)) {
    return entry;
  }
  const size_t tag = line.find(kTag);
  const size_t end = tag == line.npos ? line.npos : line.find(kEndOfTag, tag);
  return end == line.npos ? std::nullopt : ParseFromTime(line.substr(end + kEndOfTag.size()));
}

std::optional<int64_t> ParseSince(std::string_view text, int64_t now) {
  if (const auto duration = ParseDuration(text)) {
    return now - *duration;
  }
  return ParseMoment(text);
}

std::string FormatTime(int64_t time) {
  const auto seconds = static_cast<time_t>(time / kSecond);
  tm utc = {};
  std::array<char, 32> text = {};
  if (::gmtime_r(&seconds, &utc) == nullptr ||
      std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &utc) == 0) {
    return "?";
  }
  return text.data();
}

}  // namespace tavlo::ctl
