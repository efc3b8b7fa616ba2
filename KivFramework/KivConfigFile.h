/// \file
/// Configuration files: loading, typed access, and saving by editing the existing file in place.
///
/// A file is made of lines of 8-bit text:
///
///     # a comment, because "#" is its first byte after spaces
///     key = value            (before any header: section "_default_")
///     [Section] what follows the bracket does not count
///     Key=value              (section and key are found whatever their case)
///
/// A key ends at the first "=" of its line; spaces around it and in front of the value do not
/// count, those behind the value do. Lines that are none of these are skipped, and survive a save.
#pragma once

#include "KivFramework/KivExport.h"

#include <map>
#include <string>

namespace KivFramework {

/// The settings of a program. The host makes, owns and destroys it; nothing in it needs a release.
///
/// \code
/// kivConfigManager config;
/// LoadConfigFile(&config, file); // a missing file reads as an empty one and is made below
/// const std::string old = GetConfigValue(&config, section, key, std::string("(unset)"));
/// SetConfigValue(&config, section, key, value);
/// const bool saved = SaveConfigFile(&config, file);
/// \endcode
///
/// No lock guards it: one thread at a time.
struct kivConfigManager {
    /// Values by composed key: section, "#" and key, all in lower case.
    std::map<std::string, std::string> values;
    std::string filePath; ///< the file that was last loaded; nothing in the library reads it
};

/// Replaces all values by those of a file, and sets `filePath`.
///
/// A line is read with a buffer of 2048 bytes, so a longer one counts as several, and its text ends
/// at the first zero byte. Then a carriage return and a line feed are removed from its front, then
/// leading spaces, then its last byte, normally the line feed. A carriage return before the line
/// feed stays in the value. Of keys that repeat within a section, also one that occurs again
/// further down, the first one counts.
///
/// A header without "]" ends the load; it is logged with the number of its line, in reads.
///
/// \param path  of the file; also a directory, which reads as an empty file.
/// \returns true also after a malformed header or a read error, with the entries before it; false,
///          with a log entry and the manager unchanged, if the file cannot be opened.
/// \throws std::bad_alloc when memory runs out, with the manager unchanged.
///
/// Threads: no lock; one thread at a time per manager.
/// Deliberate: a last line without line feed is ignored, unless it fills the buffer exactly, and a
/// line longer than the buffer loses the byte at which it is cut. Hosts' files are read the same
/// way by every release.
KIV_API bool LoadConfigFile(kivConfigManager* manager, const char* path);

/// The value of a setting as text, without the line feeds, carriage returns and tabs in it.
///
/// \param section  of the setting; "_default_" for keys before any header. Case does not count.
/// \param key      of the setting. Case does not count.
/// \returns `default_value`, unchanged, if there is no such setting.
///
/// Threads: no lock; one thread at a time per manager.
KIV_API std::string GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                   std::string default_value);

/// The value of a setting as a number: leading white space, a sign and digits, up to the first byte
/// that is none. Of a number beyond `long` the nearest `long`, of one beyond `int` the low bits.
///
/// \param section  of the setting; "_default_" for keys before any header. Case does not count.
/// \param key      of the setting. Case does not count.
/// \returns `default_value` if there is no such setting.
///
/// Threads: no lock; one thread at a time per manager.
/// Deliberate: a setting that is there but empty or no number gives 0, not the default, because
/// presence decides.
KIV_API int GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                           int default_value);

/// As the overload for `int`; a number beyond `long` gives the nearest `long`.
KIV_API long GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            long default_value);

/// Sets or replaces a setting in memory; `SaveConfigFile` writes it.
///
/// \param section  without line feed and "#".
/// \param key      without line feed and "=", and without spaces at its ends.
/// \param value    stored as it stands. It must not hold a line feed: once saved, what follows it
///                 would be read as lines of their own.
/// \returns true.
///
/// Threads: no lock; one thread at a time per manager.
KIV_API bool SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            const char* value);

/// Sets or replaces a setting by a number in decimal; otherwise as the overload for texts.
KIV_API bool SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            int value);

/// Sets or replaces a setting by a number in decimal; otherwise as the overload for texts.
KIV_API bool SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            long value);

/// Writes all values to a file by editing the text that it has.
///
/// The lines of keys that the manager holds are rewritten as "key = value", missing ones are added
/// to their sections, and missing sections at the end; every other line stays (see
/// `ConfigReplaceKey`). A header line with the local date and a footer line frame the text and
/// replace those of an earlier save. A file that is missing or cannot be read counts as empty; a
/// zero byte hides the rest of its block of 1024. The file is rewritten in place, so it keeps its
/// owner, mode and links.
///
/// \param path  of the file; the manager's own `filePath` is neither used nor changed.
/// \returns false, without a log entry and with nothing written, if the file cannot be opened for
///          writing; else true.
///
/// Threads: no lock; one thread at a time per manager. Two saves of one file at the same time lose
/// one's changes.
/// Deliberate: true also when the disk is full or fails, and the file then ends where the system
/// took no more: hosts treat false as a wrong path. With the old footer three bytes behind it go,
/// so that a line added there by hand loses its beginning. A setting that stands before any header
/// is saved into a section "[_default_]" at the end, and the old line wins at the next load: lines
/// that stand outside every section are never touched.
KIV_API bool SaveConfigFile(kivConfigManager* manager, const char* path);

/// Finds the body of a section in a text, as offsets.
///
/// A header line begins, after spaces, with the section's name in brackets, whatever its case and
/// whatever follows. The last line is none while it lacks a line feed.
///
/// \param[out] start  the byte after the header line; after the last of several headers of the
///                    section that have no other header between them. -1 if there is none.
/// \param[out] end    the line feed before the next header line of another section, or the text's
///                    length. One less than `start` if that header follows at once. -1 if there is
///                    no such section.
///
/// Threads: no shared state.
KIV_API void GetConfigValuesectbound(std::string& text, std::string& section, long& start,
                                     long& end);

/// Gives a key of a section its value in a text.
///
/// Every line of the section that holds the key, alone or before its first "=", becomes
/// "key = value". If there is none, that line is inserted at the section's end, as
/// `GetConfigValuesectbound` finds it; if there is no such section, an empty line, the header, an
/// empty line and the key's line are appended.
///
/// Threads: no shared state.
/// Deliberate: a new line joins the section's last line if that is not empty, and after a rewrite
/// that changes a line's length the scan goes on with the offsets of the text before it: at the old
/// place of the next line, up to the old end of the section. Another line with the same key may so
/// be missed, or a part of a line or of the next section rewritten; files that hosts compare byte
/// for byte depend on it.
KIV_API void ConfigReplaceKey(std::string& text, std::string section, std::string key,
                              std::string value);

} // namespace KivFramework
