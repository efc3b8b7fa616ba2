#include "KivFramework/KivPropertyMap.h"

#include "KivFramework/KivStringHelper.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include <locale.h> // NOLINT(modernize-deprecated-headers): newlocale is POSIX's

namespace KivFramework {
namespace {

constexpr int decimal = 10;

// A fraction is written with a point under every locale, so it is read with one under every
// locale: what a host's `setlocale` does for its messages must not turn 0.5 into 0.
double read_double(const char* text) {
    // The C library has this locale built in, so it cannot fail and holds nothing to free.
    static const locale_t c_locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return ::strtod_l(text, nullptr, c_locale);
}

// The first entry called `name`, or the end.
template <typename list_type>
auto find_entry(list_type& entries, std::string_view name) {
    return std::find_if(entries.begin(), entries.end(),
                        [name](const item_attr& entry) { return entry.name == name; });
}

} // namespace
} // namespace KivFramework

using namespace KivFramework;

kivPropertyMap_Iterator::kivPropertyMap_Iterator() = default;

kivPropertyMap_Iterator::kivPropertyMap_Iterator(std::list<item_attr>::iterator position)
    : position_(position) {}

kivPropertyMap_Iterator kivPropertyMap_Iterator::operator++() {
    ++position_;
    return *this;
}

bool kivPropertyMap_Iterator::operator!=(kivPropertyMap_Iterator other) const {
    return position_ != other.position_;
}

item_attr kivPropertyMap_Iterator::operator*() const {
    return *position_;
}

kivPropertyMap::kivPropertyMap() = default;
kivPropertyMap::~kivPropertyMap() = default;
kivPropertyMap::kivPropertyMap(const kivPropertyMap& other) = default;
kivPropertyMap& kivPropertyMap::operator=(const kivPropertyMap& other) = default;

bool kivPropertyMap::IsEmpty() const {
    return entries_.empty();
}

int kivPropertyMap::GetSize() const {
    return static_cast<int>(entries_.size());
}

void kivPropertyMap::Clear() {
    entries_.clear();
}

void kivPropertyMap::Copy(kivPropertyMap* source) {
    // Deliberate: first, so that a map copied into itself ends empty.
    Clear();
    entries_ = source->entries_;
}

kivPropertyMap_Iterator kivPropertyMap::Begin() {
    return kivPropertyMap_Iterator(entries_.begin());
}

kivPropertyMap_Iterator kivPropertyMap::End() {
    return kivPropertyMap_Iterator(entries_.end());
}

bool kivPropertyMap::GetString(const char* name, std::string& value, bool* user_flag,
                               bool* string_only_flag) const {
    const auto entry = find_entry(entries_, name);
    if (entry == entries_.end()) {
        return false;
    }
    if (user_flag != nullptr) {
        *user_flag = entry->userFlag;
    }
    if (string_only_flag != nullptr) {
        *string_only_flag = entry->stringOnlyFlag;
    }
    value = entry->value;
    return true;
}

// Deliberate: the name has no "t" at its end.
bool kivPropertyMap::GetIn64(const char* name, long long& value, bool* user_flag) const {
    std::string text;
    if (!GetString(name, text, user_flag, nullptr)) {
        return false;
    }
    // Here and below, atoll and its kin with a defined result for what the type cannot hold.
    value = std::strtoll(text.c_str(), nullptr, decimal);
    return true;
}

bool kivPropertyMap::GetLong(const char* name, long& value, bool* user_flag) const {
    std::string text;
    if (!GetString(name, text, user_flag, nullptr)) {
        return false;
    }
    value = std::strtol(text.c_str(), nullptr, decimal);
    return true;
}

bool kivPropertyMap::GetTimet(const char* name, long& value, bool* user_flag) const {
    return GetLong(name, value, user_flag);
}

bool kivPropertyMap::GetInt(const char* name, int& value, bool* user_flag) const {
    long wide = 0;
    if (!GetLong(name, wide, user_flag)) {
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

bool kivPropertyMap::GetFloat(const char* name, float& value, bool* user_flag) const {
    std::string text;
    if (!GetString(name, text, user_flag, nullptr)) {
        return false;
    }
    value = static_cast<float>(read_double(text.c_str()));
    return true;
}

bool kivPropertyMap::GetBool(const char* name, bool& value, bool* user_flag) const {
    std::string text;
    if (!GetString(name, text, user_flag, nullptr)) {
        return false;
    }
    value = KivStringHelper::ToBool(std::move(text));
    return true;
}

void kivPropertyMap::SetString(const char* name, std::string value, bool user_flag,
                               bool string_only_flag) {
    const auto entry = find_entry(entries_, name);
    if (entry == entries_.end()) {
        entries_.push_back({name, std::move(value), user_flag, string_only_flag});
        return;
    }
    entry->userFlag = user_flag;
    entry->value = std::move(value);
    entry->stringOnlyFlag = string_only_flag;
}

void kivPropertyMap::SetInt(const char* name, int value, bool user_flag) {
    SetString(name, KivStringHelper::FromInt(value), user_flag, /*string_only_flag=*/false);
}

void kivPropertyMap::SetLong(const char* name, long value, bool user_flag) {
    SetString(name, KivStringHelper::FromLong(value), user_flag, /*string_only_flag=*/false);
}

void kivPropertyMap::SetInt64(const char* name, long long value, bool user_flag) {
    SetString(name, KivStringHelper::FromInt64(value), user_flag, /*string_only_flag=*/false);
}

void kivPropertyMap::SetTimet(const char* name, long* value, bool user_flag) {
    SetString(name, KivStringHelper::FromInt64(*value), user_flag, /*string_only_flag=*/false);
}

void kivPropertyMap::SetFloat(const char* name, float value, bool user_flag) {
    constexpr int precision = 6;
    SetString(name, KivStringHelper::FromFloat(value, precision), user_flag,
              /*string_only_flag=*/false);
}

void kivPropertyMap::SetBool(const char* name, bool value, bool user_flag) {
    SetString(name, KivStringHelper::FromBool(value), user_flag, /*string_only_flag=*/false);
}
