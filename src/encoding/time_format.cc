#include "encoding/time_format.h"

namespace vantrelo::encoding::time {

namespace {

constexpr int64_t kSecondsPerDay = 86400;
constexpr int64_t kDaysPerEra = 146097;          // 400 Gregorian years
constexpr int64_t kDaysFrom0000To1970 = 719468;  // counted from 0000-03-01
constexpr uint32_t kNanosecondsPerMicrosecond = 1000;
constexpr const char* kMonthAbbreviations[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct CivilTime {
  int64_t year;
  unsigned month;  // 1..12
  unsigned day;    // 1..31
  unsigned hour;
  unsigned minute;
  unsigned second;
};

int64_t floorDiv(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a < 0) != (b < 0)); }

// Proleptic Gregorian breakdown of a 64-bit UTC time, computed here rather than by the C
// library so that every platform gives the same answer for every year, 2038 and beyond
// included. Years start in March inside the computation so the leap day is the last day.
CivilTime breakDown(int64_t seconds) {
  int64_t days = floorDiv(seconds, kSecondsPerDay);
  int64_t secondOfDay = seconds % kSecondsPerDay;  // no multiplication: it could overflow
  if (secondOfDay < 0) secondOfDay += kSecondsPerDay;
  CivilTime t;
  t.hour = static_cast<unsigned>(secondOfDay / 3600);
  t.minute = static_cast<unsigned>(secondOfDay / 60 % 60);
  t.second = static_cast<unsigned>(secondOfDay % 60);

  int64_t z = days + kDaysFrom0000To1970;
  int64_t era = floorDiv(z, kDaysPerEra);
  int64_t dayOfEra = z - era * kDaysPerEra;  // [0, 146096]
  int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);  // [0, 365]
  int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;                                    // March = 0
  t.day = static_cast<unsigned>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  t.month = static_cast<unsigned>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  t.year = yearOfEra + era * 400 + (t.month <= 2 ? 1 : 0);
  return t;
}

// A time stamp is laid out here and appended in one piece: the layouts run for every formatted
// event, and one append costs far less than one per character. Room for the longest layout:
// a 64-bit time's year has at most 12 digits and a sign, its fraction at most 7 digits.
class Layout {
 public:
  void put(char c) { text_[size_++] = c; }
  // Like printf's "%0<width>d" (or "%<width>d" with a blank fill): the sign, then the digits
  // padded on the left to `width` characters in all.
  void number(int64_t value, size_t width, char fill = '0') {
    char digits[24];
    size_t count = 0;
    uint64_t magnitude =
        value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
      digits[count++] = static_cast<char>('0' + magnitude % 10);
      magnitude /= 10;
    } while (magnitude != 0);
    size_t used = count + (value < 0 ? 1 : 0);
    if (fill == ' ') {
      for (; used < width; ++used) put(' ');
      if (value < 0) put('-');
    } else {
      if (value < 0) put('-');
      for (; used < width; ++used) put('0');
    }
    while (count > 0) put(digits[--count]);
  }
  void appendTo(std::string& out) const { out.append(text_, size_); }

 private:
  char text_[64];
  size_t size_ = 0;
};

}  // namespace

void formatCompactTime(std::string& out, int64_t seconds) {
  CivilTime t = breakDown(seconds);
  Layout text;
  text.number(t.year, 4);
  text.number(t.month, 2);
  text.number(t.day, 2);
  text.number(t.hour, 2);
  text.number(t.minute, 2);
  text.number(t.second, 2);
  text.appendTo(out);
}

void formatRfc3339Time(std::string& out, int64_t seconds, uint32_t nanoseconds) {
  CivilTime t = breakDown(seconds);
  Layout text;
  text.number(t.year, 4);
  text.put('-');
  text.number(t.month, 2);
  text.put('-');
  text.number(t.day, 2);
  text.put('T');
  text.number(t.hour, 2);
  text.put(':');
  text.number(t.minute, 2);
  text.put(':');
  text.number(t.second, 2);
  text.put('.');
  // The fraction is the microsecond count without zero padding: 5 us reads ".5".
  text.number(nanoseconds / kNanosecondsPerMicrosecond, 1);
  text.put('Z');
  text.appendTo(out);
}

void formatRfc3164Time(std::string& out, int64_t seconds) {
  CivilTime t = breakDown(seconds);
  Layout text;
  for (const char* month = kMonthAbbreviations[t.month - 1]; *month != '\0'; ++month) {
    text.put(*month);
  }
  text.put(' ');
  text.number(t.day, 2, ' ');
  text.put(' ');
  text.number(t.hour, 2);
  text.put(':');
  text.number(t.minute, 2);
  text.put(':');
  text.number(t.second, 2);
  text.appendTo(out);
}

}  // namespace vantrelo::encoding::time
