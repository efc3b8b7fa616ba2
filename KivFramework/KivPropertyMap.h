/// \file
/// An ordered bag of named text values with typed access.
#pragma once

#include "KivFramework/KivExport.h"

#include <list>
#include <string>

namespace KivFramework {

/// One entry of a `kivPropertyMap`; a plain record that is copied by value.
struct item_attr {
    std::string name;            ///< compared byte for byte, so case matters
    std::string value;           ///< the value as text, whatever set it
    bool userFlag = false;       ///< the mark that every setter takes; its meaning is the caller's
    bool stringOnlyFlag = false; ///< a second mark, set by `SetString` alone; as above
};

/// A place in a `kivPropertyMap`, from its `Begin` to its `End`:
///
/// \code
/// for (kivPropertyMap_Iterator at = properties.Begin(); at != properties.End(); ++at) {
///     const item_attr entry = *at;
/// \endcode
///
/// It stays valid until its entry goes: `Clear`, `Copy` into the map and the map's end invalidate
/// it, setters never do. An entry that is added during a walk is reached before `End`.
class KIV_API kivPropertyMap_Iterator {
public:
    /// Makes a null place. It differs from every place of a map, and may be assigned to but neither
    /// advanced nor dereferenced.
    kivPropertyMap_Iterator();

    /// Makes the place that `position` is.
    explicit kivPropertyMap_Iterator(std::list<item_attr>::iterator position);

    /// Moves to the next entry; the place must not be `End`.
    ///
    /// \returns a copy of the iterator at its new place.
    kivPropertyMap_Iterator operator++();

    /// Whether the two places differ.
    bool operator!=(kivPropertyMap_Iterator other) const;

    /// A copy of the entry, so changing it does not change the map. The place must not be `End`.
    item_attr operator*() const;

private:
    std::list<item_attr>::iterator position_;
};

/// An ordered bag of named values, kept as text, each with two marks that mean what the caller
/// wants.
///
/// An entry is appended when its name is first set; setting it again changes it in place, so no
/// name comes twice. Looking up and setting walk the entries: the map is made for small sets of
/// properties. A copy of a map has entries of its own.
///
/// A name is a C string that must not be null; entries are compared with it byte for byte.
///
/// Every getter returns whether there is an entry of that name. When there is none, its outputs
/// keep what they hold. A flag output may be null. The number getters read by the rules of the C
/// library, in its "C" locale whatever the current one is: white space in front is skipped and the
/// first byte that does not fit ends the number, so a text that begins with none is 0.
///
/// Threads: no lock; a map and its iterators are for one thread at a time.
class KIV_API kivPropertyMap {
public:
    /// Makes an empty map.
    kivPropertyMap();
    ~kivPropertyMap();
    kivPropertyMap(const kivPropertyMap& other);
    kivPropertyMap& operator=(const kivPropertyMap& other);

    /// Whether there is no entry.
    bool IsEmpty() const;

    /// The number of entries.
    int GetSize() const;

    /// Removes all entries.
    void Clear();

    /// Makes this map a copy of `source`: the same entries in the same order.
    ///
    /// \param source  not null; it is not changed.
    ///
    /// Deliberate: this map is cleared first, so a map copied into itself ends empty; hosts that
    /// reset a map this way get what they always got. Assignment keeps it.
    void Copy(kivPropertyMap* source);

    /// The first entry's place; `End` when there is none.
    kivPropertyMap_Iterator Begin();

    /// The place after the last entry.
    kivPropertyMap_Iterator End();

    /// Gets the text of an entry, however it was set, and both of its marks.
    bool GetString(const char* name, std::string& value, bool* user_flag,
                   bool* string_only_flag) const;

    /// Gets a value as `atoll` reads it; beyond the range of `long long`, the nearest one.
    ///
    /// Deliberate: the name has no "t" at its end; hosts are built against it.
    bool GetIn64(const char* name, long long& value, bool* user_flag) const;

    /// Gets a value as `atol` reads it; beyond the range of `long`, the nearest one.
    bool GetLong(const char* name, long& value, bool* user_flag) const;

    /// Gets a time in seconds since the epoch, as `GetLong` does.
    bool GetTimet(const char* name, long& value, bool* user_flag) const;

    /// Gets a value as `atoi` reads it: beyond the range of `int`, the low 32 bits of what
    /// `GetLong` gets.
    bool GetInt(const char* name, int& value, bool* user_flag) const;

    /// Gets a value as `atof` reads it, narrowed to float; a point separates the fraction.
    bool GetFloat(const char* name, float& value, bool* user_flag) const;

    /// Gets a value as `KivStringHelper::ToBool` reads it: false only for the text "0".
    bool GetBool(const char* name, bool& value, bool* user_flag) const;

    /// Sets an entry's text and both of its marks.
    void SetString(const char* name, std::string value, bool user_flag, bool string_only_flag);

    /// Sets an entry to the decimal text of `value`.
    ///
    /// As with every setter of another type than text, the entry's `stringOnlyFlag` becomes false,
    /// even where `SetString` had set it.
    void SetInt(const char* name, int value, bool user_flag);

    /// Sets an entry to the decimal text of `value`, as `SetInt` does.
    void SetLong(const char* name, long value, bool user_flag);

    /// Sets an entry to the decimal text of `value`, as `SetInt` does.
    void SetInt64(const char* name, long long value, bool user_flag);

    /// Sets an entry to the decimal text of a time in seconds since the epoch, as `SetInt` does.
    ///
    /// \param value  points to the time; not null, and only read.
    void SetTimet(const char* name, long* value, bool user_flag);

    /// Sets an entry to `value` in fixed-point notation with six digits after the point, as
    /// `KivStringHelper::FromFloat` writes it: 0.5 gives "0.500000". Otherwise as `SetInt`.
    void SetFloat(const char* name, float value, bool user_flag);

    /// Sets an entry to "1" for true and "0" for false. Otherwise as `SetInt`.
    void SetBool(const char* name, bool value, bool user_flag);

private:
    std::list<item_attr> entries_;
};

} // namespace KivFramework
