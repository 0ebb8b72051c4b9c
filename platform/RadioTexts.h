#pragma once

#include <QString>

// The longest text of each kind that a radio itself has. A radio's own beacon and answers keep
// within these, so a longer one comes from a hostile radio or a hand-made file. The service,
// "--discover", the import and the app hold texts to the same limits: a text that one of them
// keeps, the others keep whole, and every beacon fits one datagram.
inline constexpr qsizetype longestSerialNumber = 32; // "0621-1104-6601-1641" has 19
inline constexpr qsizetype longestRadioName = 15;    // the radio's nickname
inline constexpr qsizetype longestModel = 32;        // "FLEX-6600M"
inline constexpr qsizetype longestCallsign = 32;
inline constexpr qsizetype longestVersion = 32;      // "3.2.39.3374"
// Any other word of a radio: a GUI client's program, station, host or address, its status,
// licence words.
inline constexpr qsizetype longestRadioText = 64;
// A configured address: a host name (at most 253 characters) and ":65535".
inline constexpr qsizetype longestRadioAddress = 259;
// The service's own words on why a radio is not announced, which may quote the radio's.
inline constexpr qsizetype longestReason = 512;

// text, cut to at most `longest` characters, never in the middle of a surrogate pair.
QString cutTo(const QString &text, qsizetype longest);
