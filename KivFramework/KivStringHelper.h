/// \file
/// Conversions, trimming, tokenizing, line access, escaping and time texts on byte strings.
///
/// A text is a sequence of bytes in no particular encoding, and a zero byte is one like any other
/// unless a function says that it ends the text. No function keeps state or takes a lock, so every
/// one may run in any number of threads at once. No output depends on a locale but that of
/// `ToLower` and `ToUpper`, and none on a time zone but that of `FormatTime`. Null is taken as the
/// empty text or the empty set.
#pragma once

#include "KivFramework/KivExport.h"

#include <set>
#include <string>
#include <vector>

namespace KivFramework {
namespace KivStringHelper {

/// Writes `value` in decimal: "-" before a negative one, no padding, no grouping.
KIV_API std::string FromInt(int value);

/// Writes `value` as `FromInt` does.
KIV_API std::string FromLong(long value);

/// Writes a time as the bare decimal number of its seconds since the epoch, as `FromLong` does.
KIV_API std::string FromTime(long seconds);

/// Writes `value` as `FromInt` does.
KIV_API std::string FromInt64(long long value);

/// Writes `value` in decimal.
KIV_API std::string FromSizet(unsigned long value);

/// Gives "1" for true and "0" for false.
KIV_API std::string FromBool(bool value);

/// Writes `value` in fixed-point notation, never with an exponent.
///
/// The exact binary value is rounded, half-way cases to the even digit: 2.5 with precision 0 gives
/// "2". Values that are no numbers give "inf", "-inf", "nan" and "-nan".
///
/// \param precision  the number of digits after the decimal point; 0 writes no point, and a
///                   negative one counts as 6, as it does for the standard streams.
KIV_API std::string FromDouble(double value, int precision);

/// Writes `value`, widened to double, as `FromDouble` does: 0.1f with precision 10 gives
/// "0.1000000015".
KIV_API std::string FromFloat(float value, int precision);

/// Reads a boolean: false only for the text "0".
///
/// Deliberate: every other text is true, "", "false" and "00" included. A missing value reads as
/// true, and only what `FromBool` writes for false reads as false; hosts rely on both.
KIV_API bool ToBool(std::string text);

/// Removes all leading spaces (0x20) in place; tabs and line ends stay.
KIV_API void TrimLeft(std::string& text);

/// Removes all trailing spaces (0x20) in place; tabs and line ends stay.
KIV_API void TrimRight(std::string& text);

/// Removes every line feed, carriage return and tab in place.
///
/// Deliberate: they go from the whole text, not only from its ends, and more than the carriage
/// return of the name goes; the configuration files are read with it.
KIV_API void TrimCR(std::string& text);

/// A copy of `text` with every byte passed through `tolower` of the current C locale; in the "C"
/// locale only A to Z change. Multi-byte characters are not recognised.
KIV_API std::string ToLower(std::string text);

/// A copy of `text` with every byte passed through `toupper` of the current C locale; in the "C"
/// locale only a to z change. Multi-byte characters are not recognised.
KIV_API std::string ToUpper(std::string text);

/// Takes the first token off the front of `source`, honouring quotes and backslash escapes.
///
/// The token ends at the first separator outside quotes, which is consumed, or at the end of the
/// text. Inside and outside quotes, "\n" stands for a line feed, "\t" for a tab, and a backslash
/// before any other byte for that byte alone; a backslash at the end stands for itself. With
/// separator "," and quote "'", stripping, ``'x,y',z`` gives `x,y` and leaves `z`. The separator
/// is looked for first: one that is also the quote or the backslash ends the token. Two separators
/// in a row give an empty token.
///
/// \param[in,out] source  the text; its first zero byte ends it. After a success it holds what
///                        follows the token, after a failure what it held.
/// \param[out] token      written only on success; a string other than `source`.
/// \param separator       only its first byte counts; the empty text makes one token of all.
/// \param quote           only its first byte counts; the empty text means no quotes.
/// \param strip_quotes    whether quotes are left out of the token.
/// \returns false when `source` is empty or a quote stays open; true otherwise.
///
/// Deliberate: escapes are looked for before quotes. So a backslash that is the quote character
/// only starts escapes, and as the last byte of the text it opens a quote that nothing can close.
KIV_API bool ExtractToken(std::string& source, std::string& token, const char* separator,
                          const char* quote, bool strip_quotes);

/// Takes what stands before `separator` off the front of `source`; no quotes, no escapes.
///
/// Without a separator in it, all of `source` is the token. "key=value" with "=" gives "key" and
/// leaves "value".
///
/// \param[in,out] source  the text; afterwards what follows the token.
/// \param[out] token      written only on success; a string other than `source`.
/// \param separator       looked for as a whole; the empty text is found at once, so the token is
///                        empty.
/// \returns false when `source` is empty; true otherwise.
///
/// Deliberate: one byte is skipped after the token, however long the separator is: "a::b" with
/// "::" leaves ":b". Hosts that split on longer separators count on the rest.
KIV_API bool ExtractToken(std::string& source, std::string& token, const char* separator);

/// Splits `text` at every byte that is one of `separators`.
///
/// Empty pieces between two separators and before the first one are kept; an empty piece after the
/// last one is not: "a,,b," gives "a", "", "b".
///
/// \throws std::out_of_range when the bytes skipped at a separator reach beyond the end.
///
/// Deliberate: as many bytes are skipped at a separator as `separators` has. That suits line ends
/// of two bytes, for which it is used, and it is why a set of several bytes that matches at the
/// very end throws.
KIV_API std::vector<std::string> TokenizeString(std::string text, std::string separators);

/// Splits as `TokenizeString` does, into an ordered set of the different pieces.
///
/// \throws std::out_of_range as `TokenizeString` does.
KIV_API std::set<std::string> TokenizeStringToSet(std::string text, std::string separators);

/// Splits as `TokenizeString` does and reads each piece as a decimal number; empty ones are left
/// out.
///
/// A piece may begin with white space and ends at its first byte that is no digit; one without
/// digits is 0, and one beyond the range of `long` is the nearest `long`. "3, 1,x,,2" with ","
/// gives 0, 1, 2, 3.
///
/// \throws std::out_of_range as `TokenizeString` does.
KIV_API std::set<long> TokenizeStringToLongSet(std::string text, std::string separators);

/// Splits a command line into its program, which may stand in double quotes, and the rest.
///
/// `"/opt/my tool/run" -v` gives the program `/opt/my tool/run` and the arguments `-v`. The program
/// ends at the first space outside quotes or at the first closing quote; an open quote runs to the
/// end of the line.
///
/// \param[out] program    written only on success.
/// \param[out] arguments  all that follows the one byte after the program; left as it is when
///                        nothing follows.
/// \returns false when the line is empty or begins with a space; true otherwise.
///
/// Deliberate: `arguments` keeps the caller's text when there are none; hosts preset it.
/// Deliberate: a quote in the middle of a word quotes too, and then the line's first byte is
/// dropped as if it were that quote, `ab"c d"` gives `b"c d`; hosts quote whole programs only.
KIV_API bool SplitCommandLines(std::string command_line, std::string& program,
                               std::string& arguments);

/// The line of that number, without its line feed; a carriage return before it is kept.
///
/// What follows the last line feed is a line too, empty when nothing follows.
///
/// \param text         its terminator ends it.
/// \param line_number  counted from 1.
/// \returns the line; the empty text, too, when there is no line of that number.
KIV_API std::string GetLine(const char* text, int line_number);

/// The line of that number, as the other overload gives it; the first zero byte ends `text`.
KIV_API std::string GetLine(std::string text, int line_number);

/// A copy of `text` with every occurrence of `search` replaced, from left to right.
///
/// Inserted text is not searched again, so "a" may be replaced by "aa". An empty `search` replaces
/// nothing.
KIV_API std::string Replace(std::string text, std::string search, std::string replacement);

/// A copy of `path` with every backslash turned into a slash; nothing else changes.
KIV_API std::string ConformToOS(std::string path);

/// Writes numbers as ascending ranges: {1, 2, 3, 5, 7, 8} gives "1-3,5,7-8"; the empty set gives
/// the empty text.
///
/// \param numbers  stays the caller's and is not changed.
///
/// Deliberate: negative numbers keep their sign beside the range's dash, {-3, -2} gives "-3--2";
/// the text is for people, and nothing reads it back.
KIV_API std::string LongSetToPrintableRanges(std::set<long>* numbers);

/// Writes `text` so that it can be part of a URL: "a b+c" gives "a+b%2Bc".
///
/// Letters and digits of ASCII, ".", "/", "-" and "_" stand as they are, a space becomes "+", and
/// any other byte "%" and its two hexadecimal digits, in upper case. The first zero byte ends the
/// text.
///
/// Deliberate: every byte from 0x80 on becomes "%FF", whichever it is, and is lost. Receivers know
/// the texts in this form; a host that needs such bytes encodes them itself.
KIV_API std::string EncodeURL(std::string text);

/// Reads what stands for single bytes in a URL: "%41%2f" gives "A/"; "%00" gives a zero byte.
///
/// "%" and the two bytes after it become the byte of that hexadecimal number, in either case. Any
/// other byte stands for itself. The first zero byte ends the text.
///
/// Deliberate: "+" stays "+", though `EncodeURL` writes a space so; a host that wants the space
/// back replaces it first, for afterwards it cannot be told from a "%2B".
/// Deliberate: digits are not checked, so that no text is refused. A byte below "A" counts its
/// distance from "0", any other one, its bit 0x20 cleared, its distance from "A" plus 10, and a
/// digit beyond the end -48; the lowest eight bits of the number remain.
KIV_API std::string DecodeURL(std::string text);

/// Writes `text` so that it can stand between HTML tags: "&" as "&amp;", "<" as "&lt;" and ">" as
/// "&gt;". Nothing else changes.
///
/// Deliberate: quotes and apostrophes stay, so the result does not fit into an attribute's value.
/// Texts are shown elsewhere in this form, too.
KIV_API std::string EncodeHTML(std::string text);

/// Writes `text` so that it can stand between single quotes in an SQL literal: each single quote is
/// doubled. Nothing else changes.
///
/// Deliberate: backslashes stay as they are, as standard SQL has it; a server that takes them as
/// escapes needs its own quoting.
KIV_API std::string EncodeSQL(std::string text);

/// Writes a time as a date, a time of day or both, in local time; dates have the month first.
///
/// A year has at least four digits, an hour counts from 0 to 23:
///
/// | mode       | 5 March 2024, 14:07:09 |                                       |
/// | ---------- | ---------------------- | ------------------------------------- |
/// | 0          | 14:07:09               |                                       |
/// | 1          | 03/05/2024             |                                       |
/// | 3          | 03052024140709         | for file names; it does not sort      |
/// | any other  | 03/05/2024 14:07:09    | 2 is the usual one                    |
///
/// \param seconds  since the epoch; negative ones lie before it.
/// \returns the text; the empty one when the year is beyond the range of the C library's.
///
/// Threads: the time zone is the one that TZ names at the time of the call; a host that changes TZ
/// does so while no other thread formats times.
KIV_API std::string FormatTime(long seconds, int mode);

/// Writes a duration in words: 90061 seconds give "1 days, 1 hours, 1 mins, 1 secs".
///
/// All four numbers are always there, and the words are always plural.
///
/// \param seconds  the duration.
/// \returns the text; the empty one for a negative duration.
///
/// Deliberate: the number of days is an unsigned one of 32 bits and starts again at 0 after
/// 4294967295; each number has the range that the form gives it.
KIV_API std::string FormatTimespan(long seconds);

} // namespace KivStringHelper
} // namespace KivFramework
