#include "KivFramework/internal/config_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>

namespace KivFramework::internal {
namespace {

// Orders of neighbouring lines at first; a line that comes later takes a small part of the gap, so
// that many can follow it.
constexpr std::uint64_t order_step = std::uint64_t{1} << 32;
constexpr std::uint64_t order_step_between = std::uint64_t{1} << 12;

// As many places in memory are asked for ahead of their use.
constexpr std::size_t group_size = 32;

std::string_view without_leading_spaces(std::string_view text) {
    while (text.starts_with(' ')) {
        text.remove_prefix(1);
    }
    return text;
}

std::string_view without_trailing_spaces(std::string_view text) {
    while (text.ends_with(' ')) {
        text.remove_suffix(1);
    }
    return text;
}

// What a line is compared by: the text before the first "=", without spaces at either end.
std::string_view key_of_line(std::string_view line) {
    return without_trailing_spaces(without_leading_spaces(line.substr(0, line.find('='))));
}

bool is_header(std::string_view line) {
    return without_leading_spaces(line).starts_with('[');
}

// Whether no more than spaces, and perhaps a "=" with anything behind it, surround the key. For a
// key that could be what a line is compared by.
bool holds_key(const case_folding& folding, std::string_view line, std::string_view key) {
    line = without_leading_spaces(line);
    if (!folding.begins_with(line, key)) {
        return false;
    }
    line = without_leading_spaces(line.substr(key.size()));
    return line.empty() || line.front() == '=';
}

// Whether any line can be compared by this key. The empty key has lines too, but they are many and
// not worth an index.
bool can_match(std::string_view key) {
    return !key.empty() && key.front() != ' ' && key.back() != ' ' &&
           key.find('=') == std::string_view::npos;
}

// Whether the line is the very one that would be written.
bool states(std::string_view line, const assignment& given) {
    constexpr std::string_view between = " = ";
    return line.size() == given.key.size() + between.size() + given.value.size() &&
           line.starts_with(given.key) && line.substr(given.key.size()).starts_with(between) &&
           line.ends_with(given.value);
}

bool is_named(const case_folding& folding, std::string_view header, std::string_view name) {
    return folding.begins_with(without_leading_spaces(header), name);
}

// The part of a header line up to its first "]", or nothing. A section's name in brackets has to
// equal it up to its own first "]".
std::string_view name_of_header(std::string_view line) {
    line = without_leading_spaces(line);
    return line.substr(0, line.find(']') + 1);
}

std::string in_brackets(std::string_view section) {
    std::string pattern = "[";
    pattern += section;
    pattern += ']';
    return pattern;
}

} // namespace

std::optional<section_range> find_section(std::string_view text, std::string_view section) {
    const case_folding folding;
    const std::string pattern = in_brackets(section);
    std::optional<section_range> found;
    std::size_t begin = 0;
    for (std::size_t line_feed = 0; (line_feed = text.find('\n', begin)) != std::string_view::npos;
         begin = line_feed + 1) {
        const std::string_view line = without_leading_spaces(text.substr(begin, line_feed - begin));
        if (folding.begins_with(line, pattern)) {
            found = {line_feed + 1, text.size()};
        } else if (found && line.starts_with('[')) {
            found->end = begin - 1;
            break;
        }
    }
    return found;
}

config_text::line config_text::line_index::removed_;

void config_text::line_index::reset(std::size_t count) {
    slots_.assign(std::bit_ceil(2 * count + 2), nullptr);
    used_ = 0;
}

// Where the first line with the key is, or the free slot where it would be.
config_text::line** config_text::line_index::slot_of(std::uint32_t hash, std::string_view key) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = hash & mask;
    while (slots_[at] != nullptr && (slots_[at] == &removed_ || slots_[at]->hash != hash ||
                                     !has_key_(folding_, slots_[at]->text, key))) {
        at = (at + 1) & mask;
    }
    return &slots_[at];
}

void config_text::line_index::prefetch_slot(std::uint32_t hash) const {
    __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
}

void config_text::line_index::prefetch_line(std::uint32_t hash) const {
    if (const line* const expected = slots_[hash & (slots_.size() - 1)]) {
        __builtin_prefetch(expected);
        __builtin_prefetch(expected + 1); // a scan goes on with the next line
    }
}

void config_text::line_index::prefetch_text(std::uint32_t hash) const {
    if (const line* const expected = slots_[hash & (slots_.size() - 1)]) {
        __builtin_prefetch(expected->text.data());
    }
}

void config_text::line_index::add(line& added, std::string_view key) {
    add(added, key, folding_.hash(key));
}

void config_text::line_index::add(line& added, std::string_view key, std::uint32_t hash) {
    added.hash = hash;
    line** link = slot_of(added.hash, key);
    if (*link == nullptr) {
        added.same_key = nullptr;
        *link = &added;
        if (2 * ++used_ > slots_.size()) {
            grow();
        }
        return;
    }
    while (*link != nullptr && (*link)->order < added.order) {
        link = &(*link)->same_key;
    }
    added.same_key = *link;
    *link = &added;
}

void config_text::line_index::remove(line& removed, std::string_view key) {
    line** const first = slot_of(removed.hash, key);
    line** link = first;
    while (*link != &removed) {
        link = &(*link)->same_key;
    }
    *link = removed.same_key;
    if (*first == nullptr) {
        *first = &removed_; // keeps the slots behind it within reach
    }
}

void config_text::line_index::grow() {
    std::vector<line*> old(2 * slots_.size());
    old.swap(slots_);
    used_ = 0;
    const std::size_t mask = slots_.size() - 1;
    for (line* const first : old) {
        if (first != nullptr && first != &removed_) {
            std::size_t at = first->hash & mask;
            while (slots_[at] != nullptr) {
                at = (at + 1) & mask;
            }
            slots_[at] = first;
            ++used_;
        }
    }
}

config_text::config_text(std::string text)
    : text_(std::move(text += '\n')), headers_(folding_, is_named), keys_(folding_, holds_key) {
    const auto line_count = static_cast<std::size_t>(std::count(text_.begin(), text_.end(), '\n'));
    first_ = static_cast<line*>(memory_.allocate(line_count * sizeof(line), alignof(line)));
    std::size_t header_count = 0;
    std::string_view rest = text_;
    for (std::size_t i = 0; i < line_count; ++i) {
        const std::string_view content = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(content.size() + 1);
        header_count += is_header(content) ? 1 : 0;
        last_ = std::construct_at(
            first_ + i, line{content, (i + 1) * order_step, last_, first_ + i + 1, nullptr, 0});
    }
    last_->next = nullptr;

    headers_.reset(header_count);
    for (line* header = last_->previous; header != nullptr; header = header->previous) {
        if (is_header(header->text)) {
            learn_header(*header);
        }
    }
}

void config_text::replace_keys(std::string_view section, std::span<const assignment> assignments) {
    // The lines of different keys lie anywhere in memory, so they are asked for ahead, several at a
    // time.
    while (!assignments.empty()) {
        const auto group = assignments.first(std::min(group_size, assignments.size()));
        assignments = assignments.subspan(group.size());
        std::array<std::uint32_t, group_size> hashes;
        std::transform(group.begin(), group.end(), hashes.begin(), [this](const assignment& given) {
            __builtin_prefetch(given.value.data());
            return folding_.hash(given.key);
        });
        const std::span expected(hashes.data(), open_section(section) ? group.size() : 0);
        for (const std::uint32_t hash : expected) {
            keys_.prefetch_slot(hash);
        }
        for (const std::uint32_t hash : expected) {
            keys_.prefetch_line(hash);
        }
        for (const std::uint32_t hash : expected) {
            keys_.prefetch_text(hash);
        }
        for (std::size_t i = 0; i < group.size(); ++i) {
            replace_key(section, group[i], hashes[i]);
        }
    }
}

void config_text::replace_key(std::string_view section, const assignment& given,
                              std::uint32_t hash) {
    if (!section_is_current_ && !open_section(section)) {
        append_section(section, given);
        return;
    }
    line* const first = can_match(given.key) ? keys_.first(hash, given.key) : nullptr;
    if (first != nullptr && first->same_key == nullptr && states(first->text, given)) {
        return;
    }
    // The first line that holds the key is rewritten in any case, so its bytes can go.
    const std::string_view room = first != nullptr ? first->text : std::string_view();
    const std::string_view new_line = stored({given.key, " = ", given.value}, room);
    if (!rewrite_key(given.key, first, new_line)) {
        insert_at_end(new_line);
    }
}

// Finds the section's body and indexes its keys. Returns false if there is no such section.
bool config_text::open_section(std::string_view name) {
    if (section_is_current_ && name == section_) {
        return true;
    }
    const std::string pattern = in_brackets(name);
    const auto belongs = [&](const line& header) {
        return is_named(folding_, header.text, pattern);
    };
    const std::string_view name_in_index = name_of_header(pattern);
    line* header = headers_.first(folding_.hash(name_in_index), name_in_index);
    while (header != nullptr && !belongs(*header)) {
        header = header->same_key;
    }
    section_is_current_ = header != nullptr;
    if (header == nullptr) {
        return false;
    }

    std::size_t count = 0;
    line* end = header->next;
    for (; end != last_; end = end->next, ++count) {
        if (is_header(end->text)) {
            if (!belongs(*end)) {
                break;
            }
            header = end;
            count = 0;
        }
    }
    section_ = name;
    header_ = header;
    body_end_ = end;
    keys_.reset(count);
    learn_keys_between(*header, *end);
    return true;
}

// Enters the lines between two others into the index of keys, the last one first.
void config_text::learn_keys_between(const line& header, const line& end) {
    struct keyed_line {
        config_text::line* line;
        std::string_view key;
        std::uint32_t hash;
    };
    // As slots lie anywhere in memory, they too are asked for ahead.
    std::array<keyed_line, group_size> group;
    for (line* next = end.previous; next != &header;) {
        std::size_t count = 0;
        for (; count < group_size && next != &header; next = next->previous) {
            const std::string_view key = key_of_line(next->text);
            if (!key.empty()) {
                group[count] = {next, key, folding_.hash(key)};
                keys_.prefetch_slot(group[count++].hash);
            }
        }
        const std::span expected(group.data(), count);
        for (const keyed_line& learned : expected) {
            keys_.prefetch_line(learned.hash);
        }
        for (const keyed_line& learned : expected) {
            keys_.add(*learned.line, learned.key, learned.hash);
        }
    }
}

void config_text::append_section(std::string_view name, const assignment& given) {
    replace_rest({last_, last_->text.size()},
                 stored({"\n[", name, "]\n\n", given.key, " = ", given.value, "\n"}));
}

config_text::line* config_text::last_line_of_section() const {
    return body_end_ == last_ ? last_ : body_end_->previous;
}

bool config_text::before(place left, place right) {
    return left.line == right.line ? left.column < right.column
                                   : left.line->order < right.line->order;
}

config_text::place config_text::forward(place from, std::size_t count) {
    from.column += count;
    while (from.line->next != nullptr && from.column > from.line->text.size()) {
        from.column -= from.line->text.size() + 1;
        from.line = from.line->next;
    }
    return from;
}

config_text::place config_text::back(place from, std::size_t count) {
    while (from.column < count) {
        count -= from.column + 1;
        from.line = from.line->previous;
        from.column = from.line->text.size();
    }
    from.column -= count;
    return from;
}

// Rewrites the lines of the open section that hold the key. Returns false if there is none.
bool config_text::rewrite_key(std::string_view key, line* candidate, std::string_view new_line) {
    bool rewritten = false;
    place at{header_->next, 0};
    line* const last = last_line_of_section();
    place end{last, last->text.size()};
    for (;;) {
        if (!key.empty()) {
            at = next_candidate(at, candidate);
        }
        if (at.line == last_ || !before(at, end)) {
            return rewritten;
        }
        const std::string_view old = at.line->text.substr(at.column);
        const bool is_candidate = at.line == candidate && at.column == 0;
        if (!is_candidate && !holds_key(folding_, old, key)) {
            at = {at.line->next, 0};
            continue;
        }
        replace_rest(at, rewritten ? stored({new_line}) : new_line); // no two lines share bytes
        rewritten = true;
        if (end.line == at.line) {
            return true;
        }
        // Neither offset is corrected for the new length. Here the end names a byte, which that
        // leaves behind: the byte that has the old offset now lies as far the other way.
        end = old.size() > new_line.size() ? forward(end, old.size() - new_line.size())
                                           : back(end, new_line.size() - old.size());
        at = forward(at, old.size() + 1);
    }
}

// Skips the whole lines of the section's body that do not hold the key.
config_text::place config_text::next_candidate(place from, line*& candidate) const {
    if (from.column != 0 || from.line->order >= body_end_->order) {
        return from;
    }
    while (candidate != nullptr && candidate->order < from.line->order) {
        candidate = candidate->same_key;
    }
    return {candidate != nullptr ? candidate : body_end_, 0};
}

// Inserts a line before the line feed at the end of the open section, or at the end of the text.
void config_text::insert_at_end(std::string_view new_line) {
    line* const last = last_line_of_section();
    if (last->text.empty()) {
        // The empty line then follows the new one, as if it had been split off from it.
        insert_lines_after(*last->previous, new_line);
    } else {
        replace_rest({last, last->text.size()}, stored({new_line, "\n"}));
    }
}

// Puts the replacement, which may have several lines, in the place of the rest of a line. It has
// to be a stored text.
void config_text::replace_rest(place from, std::string_view replacement) {
    line& changed = *from.line;
    const std::size_t line_feed = std::min(replacement.find('\n'), replacement.size());
    const std::string_view first = replacement.substr(0, line_feed);

    // A line that is rewritten from its first byte holds the same key as before.
    const bool is_known = from.column == 0 && &changed != last_;
    if (!is_known) {
        forget(changed);
    }
    changed.text = from.column == 0 ? first : stored({changed.text.substr(0, from.column), first});
    if (line_feed != replacement.size()) {
        insert_lines_after(changed, replacement.substr(line_feed + 1));
    }
    if (!is_known) {
        learn(changed);
    }
}

void config_text::insert_lines_after(line& position, std::string_view text) {
    line* last = &position;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t line_feed = std::min(text.find('\n', begin), text.size());
        last = insert_after(*last, text.substr(begin, line_feed - begin));
        begin = line_feed + 1;
    }
    // Only now is it settled which line is the last one of the text.
    for (line* added = last; added != &position; added = added->previous) {
        learn(*added);
    }
}

config_text::line* config_text::insert_after(line& position, std::string_view text) {
    if (position.next != nullptr && position.next->order - position.order < 2) {
        renumber();
    }
    const std::uint64_t order =
        position.next == nullptr
            ? position.order + order_step
            : position.order +
                  std::min((position.next->order - position.order) / 2, order_step_between);
    line* const inserted =
        std::construct_at(static_cast<line*>(memory_.allocate(sizeof(line), alignof(line))),
                          line{text, order, &position, position.next, nullptr, 0});
    position.next = inserted;
    if (inserted->next != nullptr) {
        inserted->next->previous = inserted;
    } else {
        last_ = inserted;
        if (body_end_ == &position) {
            body_end_ = inserted;
        }
    }
    return inserted;
}

void config_text::renumber() {
    std::uint64_t order = 0;
    for (line* numbered = first_; numbered != nullptr; numbered = numbered->next) {
        order += order_step;
        numbered->order = order;
    }
}

// Enters a line into the index that it belongs to.
void config_text::learn(line& added) {
    if (&added == last_) {
        return;
    }
    if (is_header(added.text)) {
        learn_header(added);
        section_is_current_ = false;
    } else if (is_in_body(added)) {
        learn_key(added);
    }
}

void config_text::learn_header(line& added) {
    const std::string_view name = name_of_header(added.text);
    if (!name.empty()) {
        headers_.add(added, name);
    }
}

void config_text::learn_key(line& added) {
    const std::string_view key = key_of_line(added.text);
    if (!key.empty()) {
        keys_.add(added, key);
    }
}

// Takes a line, with the text it was learned with, out of its index.
void config_text::forget(line& removed) {
    if (&removed == last_) {
        return;
    }
    if (is_header(removed.text)) {
        const std::string_view name = name_of_header(removed.text);
        if (!name.empty()) {
            headers_.remove(removed, name);
        }
    } else if (is_in_body(removed)) {
        const std::string_view key = key_of_line(removed.text);
        if (!key.empty()) {
            keys_.remove(removed, key);
        }
    }
}

// Whether a line that is edited lies in the body of the section: no edit precedes its header.
bool config_text::is_in_body(const line& edited) const {
    return body_end_ != nullptr && edited.order < body_end_->order;
}

char* config_text::new_bytes(std::size_t count) {
    constexpr std::size_t block_size = std::size_t{16} * 1024;
    if (free_bytes_.size() < count) {
        const std::size_t size = std::max(block_size, count);
        free_bytes_ = {static_cast<char*>(memory_.allocate(size, alignof(char))), size};
    }
    char* const bytes = free_bytes_.data();
    free_bytes_ = free_bytes_.subspan(count);
    return bytes;
}

// Joins the parts of a text in memory that lasts, with a line feed behind them: where the text of a
// line was that is not needed any more, or else in new memory.
std::string_view config_text::stored(std::initializer_list<std::string_view> parts,
                                     std::string_view room) {
    std::size_t size = 0;
    for (const std::string_view part : parts) {
        size += part.size();
    }
    // The bytes of all lines are the object's own; only the views of them are constant.
    char* const bytes = size <= room.size() ? const_cast<char*>(room.data()) : new_bytes(size + 1);
    char* end = bytes;
    for (const std::string_view part : parts) {
        end = std::copy(part.begin(), part.end(), end);
    }
    *end = '\n';
    return {bytes, size};
}

} // namespace KivFramework::internal
