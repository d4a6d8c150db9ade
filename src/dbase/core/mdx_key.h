// Key bytes of a dBase IV production index (.MDX), as dBASE IV writes them.
//
// Character keys are the code-page bytes of the key expression, blank-padded
// to the key length. Numeric keys are 12 bytes of packed decimal:
//
//   byte 0   0x34 + e, where the value is 0.d1d2d3... x 10^e (so 0x34 plus
//            the digits before the point; 0.05 gives 0x33)
//   byte 1   (digit count << 2) | 0x01, plus 0x80 for a negative value.
//            dBASE IV writes a count of 10 for every value of up to ten
//            significant digits (a count of the digits beyond that);
//            zero is 0x34 0x01 with no digits.
//   2..11    the significant digits, two per byte, high nibble first, the
//            unused nibbles zero
//
// Date keys are the Julian Day Number as a little-endian IEEE double
// (2000-01-01 is 2451545.0; a blank date is 0.0).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dbase {

class Collation;

inline constexpr uint32_t kBcdKeyLength = 12;
inline constexpr uint32_t kDateKeyLength = 8;

// Appends the 12-byte key of a number. Up to 15 significant digits are kept
// (what a double holds); NaN and values too small to write give zero, values
// too large give the largest key.
void appendBcd(double value, std::string& out);

// Appends the key of the text of a numeric field: optional blanks, an
// optional sign, digits with an optional '.' and digits, optional blanks.
// All blanks is zero. Up to 20 significant digits are kept, the rest cut.
// Returns false, appending nothing, when the text is not such a number.
bool appendBcdText(std::string_view text, std::string& out);

// The number a 12-byte key holds.
double bcdValue(const char* key12);

// Three-way order of two 12-byte keys: the order of their numbers.
int compareBcd(const char* a, const char* b);

// Julian Day Number of the Gregorian date (any year from 0 on; month and
// day as given, so day 0 is the last day of the month before).
int64_t julianDay(int year, int month, int day);
// The Gregorian date of a Julian Day Number.
void civilDate(int64_t jdn, int& year, int& month, int& day);

// The Julian day of an eight-character YYYYMMDD date; 0 when the text is
// blank or not such a date (month 1-12, day 1-31).
int64_t julianDayOf(std::string_view yyyymmdd);

// Appends the 8-byte key of a YYYYMMDD date (blank or unreadable: 0.0).
void appendJulianDay(std::string_view yyyymmdd, std::string& out);
// Appends the 8-byte key of a day number.
void appendDayKey(double day, std::string& out);
// The day number an 8-byte key holds.
double dayKeyValue(const char* key8);

// Three-way order of two keys of a tag of this type ('C', 'N', 'D'), in
// ascending order. C keys compare in the collation's order, N keys by their
// numbers, D keys by their day numbers; other types compare as bytes.
int compareMdxKeys(char type, std::string_view a, std::string_view b, const Collation& collation);

}  // namespace dbase
