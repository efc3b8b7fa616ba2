#include "KivFramework/internal/config_text.h"

#include "KivFramework/internal/byte_block.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

namespace KivFramework::internal {
namespace {

// That many, each with its step of orders, leave room in the orders.
constexpr std::size_t most_lines = std::size_t{1} << 30;

// Orders of neighbouring lines at first; a line that comes later takes a small part of the gap, so
// that many can follow it.
constexpr std::uint64_t order_step = std::uint64_t{1} << 32;
constexpr std::uint64_t order_step_between = std::uint64_t{1} << 12;

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

bool is_named(const case_folding& folding, std::string_view header, std::string_view name) {
    return folding.begins_with(without_leading_spaces(header), name);
}

// The part of a header line up to its first "]", or nothing. A section's name in brackets has to
// equal it up to its own first "]".
std::string_view name_of_header(std::string_view line) {
    line = without_leading_spaces(line);
    return line.substr(0, line.find(']') + 1);
}

std::uint32_t size_of_line(std::string_view text) {
    if (text.size() > UINT32_MAX) {
        throw std::length_error("a configuration line of too many bytes");
    }
    return static_cast<std::uint32_t>(text.size());
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

void config_text::line_index::clear() {
    gathered_.clear();
    slots_.assign(2, {});
    used_ = 0;
}

void config_text::line_index::gather(line_id gathered) {
    const std::string_view key = key_of_(lines_[gathered].text());
    if (!key.empty()) {
        gathered_.push_back({folding_.hash(key), gathered});
    }
}

void config_text::line_index::enter_gathered() {
    constexpr std::size_t ahead = 16; // slots lie anywhere in memory, so they are asked for ahead

    slots_.assign(std::bit_ceil(2 * gathered_.size() + 2), {});
    for (std::size_t i = gathered_.size(); i-- > 0;) {
        if (i >= ahead) {
            prefetch(gathered_[i - ahead].hash);
        }
        add(gathered_[i].first, gathered_[i].hash);
    }
}

// Where the first line with the key is, or the free slot where it would be.
config_text::line_index::slot& config_text::line_index::slot_of(std::uint32_t hash,
                                                                std::string_view key) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = hash & mask;
    while (slots_[at].first != none &&
           (slots_[at].hash != hash || slots_[at].first == all_removed ||
            !has_key_(folding_, lines_[slots_[at].first].text(), key))) {
        at = (at + 1) & mask;
    }
    return slots_[at];
}

// The first line that a key with this hash has, whatever the key.
config_text::line_id config_text::line_index::likely(std::uint32_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = hash & mask;
    while (slots_[at].first != none && slots_[at].hash != hash) {
        at = (at + 1) & mask;
    }
    return slots_[at].first == all_removed ? none : slots_[at].first;
}

void config_text::line_index::add(line_id added) {
    const std::string_view key = key_of_(lines_[added].text());
    if (!key.empty()) {
        add(added, folding_.hash(key));
    }
}

void config_text::line_index::add(line_id added, std::uint32_t hash) {
    line& entered = lines_[added];
    slot* entry = &slots_[hash & (slots_.size() - 1)];
    if (entry->first != none) {
        entry = &slot_of(hash, key_of_(entered.text())); // most lines need no look at the text
    }
    if (entry->first == none) {
        entered.same_key = none;
        *entry = {hash, added};
        if (2 * ++used_ > slots_.size()) {
            grow();
        }
        return;
    }
    line_id* link = &entry->first;
    while (*link != none && lines_[*link].order < entered.order) {
        link = &lines_[*link].same_key;
    }
    entered.same_key = *link;
    *link = added;
}

void config_text::line_index::remove(line_id removed) {
    const std::string_view key = key_of_(lines_[removed].text());
    if (key.empty()) {
        return;
    }
    slot& entry = slot_of(folding_.hash(key), key);
    line_id* link = &entry.first;
    while (*link != removed) {
        link = &lines_[*link].same_key;
    }
    *link = lines_[removed].same_key;
    if (entry.first == none) {
        entry.first = all_removed; // keeps the slots behind it within reach
    }
}

void config_text::line_index::grow() {
    std::pmr::vector<slot> old(2 * slots_.size(), slots_.get_allocator());
    old.swap(slots_);
    used_ = 0;
    const std::size_t mask = slots_.size() - 1;
    for (const slot& entry : old) {
        if (entry.first != none && entry.first != all_removed) {
            std::size_t at = entry.hash & mask;
            while (slots_[at].first != none) {
                at = (at + 1) & mask;
            }
            slots_[at] = entry;
            ++used_;
        }
    }
}

config_text::config_text(std::pmr::string text, std::pmr::monotonic_buffer_resource& memory)
    : memory_(memory), text_(std::move(text += '\n')), lines_(&memory), edits_(&memory),
      headers_(folding_, lines_, name_of_header, is_named),
      keys_(folding_, lines_, key_of_line, holds_key) {
    lines_.reserve(1 + count_byte(text_, '\n'));
    lines_.push_back({nullptr, 0, 0, none, 1, none}); // the entry that is no line
    const std::string_view all = text_;
    std::size_t begin = 0;
    for_each_place(all, '\n', [&](std::size_t line_feed) {
        const std::string_view content = all.substr(begin, line_feed - begin);
        begin = line_feed + 1;
        const auto id = static_cast<line_id>(lines_.size());
        append(content, id * order_step, id - 1, id + 1);
        if (is_header(content) && begin != all.size()) {
            headers_.gather(id);
        }
    });
    last_ = static_cast<line_id>(lines_.size() - 1);
    lines_[last_].next = none;

    headers_.enter_gathered();
    keys_.expect(lines_.size());
}

void config_text::replace_key(std::string_view section, std::string_view key,
                              std::string_view value) {
    constexpr std::size_t most = 256; // keeps them in the nearest cache

    if (edits_.size() == most || (!edits_.empty() && section != edited_section_)) {
        finish();
    }
    edited_section_ = section;
    edits_.push_back({key, value, folding_.hash(key), none});
}

void config_text::finish() {
    // The lines of different keys lie anywhere in memory, so an edit's is asked for ahead, step by
    // step: the index's slot and the value, then the line, then the line's text. The number of an
    // edit before the first one wraps, and so is none either.
    constexpr std::size_t step = 16;

    if (!edits_.empty()) {
        open_section(edited_section_);
    }
    for (std::size_t next = 0; next < edits_.size() + 3 * step; ++next) {
        if (next < edits_.size()) {
            const edit& asked = edits_[next];
            keys_.prefetch(asked.hash);
            __builtin_prefetch(asked.value.data());
            __builtin_prefetch(asked.value.data() + asked.value.size());
        }
        if (next - step < edits_.size()) {
            edit& asked = edits_[next - step];
            asked.likely = keys_.likely(asked.hash);
            __builtin_prefetch(&lines_[asked.likely]);
            __builtin_prefetch(&lines_[asked.likely] + 1); // most probably the next line
        }
        if (next - 2 * step < edits_.size()) {
            const line& likely = lines_[edits_[next - 2 * step].likely];
            __builtin_prefetch(likely.begin);
            __builtin_prefetch(likely.end());
            __builtin_prefetch(lines_[likely.next].end()); // a scan may go on with the next line
        }
        if (next - 3 * step < edits_.size()) {
            make(edits_[next - 3 * step]);
        }
    }
    edits_.clear();
}

void config_text::make(const edit& due) {
    if (!section_is_current_ && !open_section(edited_section_)) {
        append_section(due);
        return;
    }
    const line_id first = can_match(due.key) ? keys_.first(due.hash, due.key) : none;
    const std::string_view old = lines_[first].text();
    // The first line that holds the key is rewritten in any case, so its bytes can go.
    const std::string_view new_line = stored({due.key, " = ", due.value}, old);
    if (first != none && is_all_that_changes(first, new_line, due.key)) {
        set_text(first, new_line);
    } else if (!rewrite_key(due.key, first, new_line)) {
        insert_at_end(new_line);
    }
}

// Finds the section's body and indexes its keys. Returns false if there is no such section.
bool config_text::open_section(std::string_view name) {
    if (section_is_current_ && name == section_) {
        return true;
    }
    const std::string pattern = in_brackets(name);
    const auto belongs = [&](line_id header) {
        return is_named(folding_, lines_[header].text(), pattern);
    };
    const std::string_view name_in_index = name_of_header(pattern);
    line_id header = headers_.first(folding_.hash(name_in_index), name_in_index);
    while (header != none && !belongs(header)) {
        header = lines_[header].same_key;
    }
    section_is_current_ = header != none;
    if (header == none) {
        return false;
    }

    keys_.clear();
    line_id end = lines_[header].next;
    for (; end != last_; end = lines_[end].next) {
        if (!is_header(lines_[end].text())) {
            keys_.gather(end);
        } else if (belongs(end)) {
            header = end;
            keys_.clear();
        } else {
            break;
        }
    }
    section_ = name;
    header_ = header;
    body_end_ = end;
    keys_.enter_gathered();
    return true;
}

void config_text::append_section(const edit& first) {
    replace_rest({last_, lines_[last_].size},
                 stored({"\n[", edited_section_, "]\n\n", first.key, " = ", first.value, "\n"}));
}

config_text::line_id config_text::last_line_of_section() const {
    return body_end_ == last_ ? last_ : lines_[body_end_].previous;
}

bool config_text::before(place left, place right) const {
    return left.line == right.line ? left.column < right.column
                                   : lines_[left.line].order < lines_[right.line].order;
}

config_text::place config_text::forward(place from, std::size_t count) const {
    from.column += count;
    while (from.line != last_ && from.column > lines_[from.line].size) {
        from.column -= lines_[from.line].size + 1;
        from.line = lines_[from.line].next;
    }
    return from;
}

config_text::place config_text::back(place from, std::size_t count) const {
    while (from.column < count) {
        count -= from.column + 1;
        from.line = lines_[from.line].previous;
        from.column = lines_[from.line].size;
    }
    from.column -= count;
    return from;
}

// Whether no more changes than the first line that holds the key, as far as that is soon seen: of a
// line that did not get shorter, the scan goes on with the rest and with lines of other keys.
bool config_text::is_all_that_changes(line_id first, std::string_view new_line,
                                      std::string_view key) const {
    const line& changed = lines_[first];
    const std::size_t old_size = changed.size;
    return changed.same_key == none && new_line.find('\n') == std::string_view::npos &&
           (new_line.size() == old_size ||
            (new_line.size() > old_size &&
             !holds_key(folding_, new_line.substr(old_size + 1), key)));
}

// Rewrites the lines of the open section that hold the key, the first of which is known. Returns
// false if there is none.
bool config_text::rewrite_key(std::string_view key, line_id first, std::string_view new_line) {
    bool rewritten = false;
    line_id candidate = first;
    place at{line_after(header_, key, candidate), 0};
    const line_id last = last_line_of_section();
    place end{last, lines_[last].size};
    while (at.line != last_ && before(at, end)) {
        const std::string_view old = lines_[at.line].text().substr(at.column);
        if (!holds_key(folding_, old, key)) {
            at = {line_after(at.line, key, candidate), 0};
            continue;
        }
        replace_rest(at, rewritten ? stored({new_line}) : new_line); // no two lines share bytes
        rewritten = true;
        if (end.line == at.line) {
            break;
        }
        // Neither offset is corrected for the new length. Here the end names a byte, which that
        // leaves behind: the byte that has the old offset now lies as far the other way.
        end = old.size() > new_line.size() ? forward(end, old.size() - new_line.size())
                                           : back(end, new_line.size() - old.size());
        at = forward(at, old.size() + 1);
    }
    return rewritten;
}

// The next line that may hold the key: in the section's body one of those that the index knows.
config_text::line_id config_text::line_after(line_id position, std::string_view key,
                                             line_id& candidate) const {
    const std::uint64_t order = lines_[position].order;
    if (key.empty() || order >= lines_[body_end_].order) {
        return lines_[position].next;
    }
    while (candidate != none && lines_[candidate].order <= order) {
        candidate = lines_[candidate].same_key;
    }
    return candidate != none ? candidate : body_end_;
}

// Inserts a line before the line feed at the end of the open section, or at the end of the text.
void config_text::insert_at_end(std::string_view new_line) {
    const line_id last = last_line_of_section();
    if (lines_[last].text().empty()) {
        // The empty line then follows the new one, as if it had been split off from it.
        insert_lines_after(lines_[last].previous, new_line);
    } else {
        replace_rest({last, lines_[last].size}, stored({new_line, "\n"}));
    }
}

// Puts the replacement, which may have several lines, in the place of the rest of a line. It has
// to be a stored text.
void config_text::replace_rest(place from, std::string_view replacement) {
    const std::size_t line_feed = std::min(replacement.find('\n'), replacement.size());
    const std::string_view first = replacement.substr(0, line_feed);

    // A line that is rewritten from its first byte holds the same key as before.
    const bool is_known = from.column == 0 && from.line != last_;
    if (!is_known) {
        forget(from.line);
    }
    if (from.column == 0) {
        set_text(from.line, first);
    } else {
        continue_line(from, first);
    }
    if (line_feed != replacement.size()) {
        insert_lines_after(from.line, replacement.substr(line_feed + 1));
    }
    if (!is_known) {
        learn(from.line);
    }
}

void config_text::insert_lines_after(line_id position, std::string_view text) {
    line_id last = position;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t line_feed = std::min(text.find('\n', begin), text.size());
        last = insert_after(last, text.substr(begin, line_feed - begin));
        begin = line_feed + 1;
    }
    // Only now is it settled which line is the last one of the text.
    for (line_id added = last; added != position; added = lines_[added].previous) {
        learn(added);
    }
}

config_text::line_id config_text::insert_after(line_id position, std::string_view text) {
    const line_id next = lines_[position].next;
    if (next != none && lines_[next].order - lines_[position].order < 2) {
        make_room_before(next);
    }
    const std::uint64_t order = lines_[position].order;
    const std::uint64_t step =
        next == none ? order_step : std::min((lines_[next].order - order) / 2, order_step_between);
    const line_id inserted = append(text, order + step, position, next);
    lines_[position].next = inserted;
    if (next != none) {
        lines_[next].previous = inserted;
    } else {
        last_ = inserted;
        if (body_end_ == position) {
            body_end_ = inserted;
        }
    }
    return inserted;
}

config_text::line_id config_text::append(std::string_view text, std::uint64_t order,
                                         line_id previous, line_id next) {
    const std::size_t id = lines_.size();
    if (id >= most_lines) {
        throw std::length_error("a configuration text of too many lines");
    }
    lines_.push_back({text.data(), order, size_of_line(text), previous, next, none});
    return static_cast<line_id>(id);
}

void config_text::set_text(line_id changed, std::string_view text) {
    if (changed == growing_) {
        growing_ = none; // other lines may be given what was its room
    }
    lines_[changed].begin = text.data();
    lines_[changed].size = size_of_line(text);
}

// Replaces the rest of a line by a text without line feeds. The line is left room to grow: a key
// may hold in the rest of its own rewritten line again and again, as the empty one does.
void config_text::continue_line(place from, std::string_view rest) {
    const std::size_t size = from.column + rest.size();
    if (growing_ != from.line || room_.size() <= size) {
        const std::size_t room = 2 * (size + 1);
        char* const bytes = new_bytes(room);
        lines_[from.line].text().copy(bytes, from.column);
        room_ = {bytes, room};
    }
    char* const end = std::copy(rest.begin(), rest.end(), room_.data() + from.column);
    *end = '\n';
    set_text(from.line, {room_.data(), size});
    growing_ = from.line;
}

// Gives lines new numbers where there is none left before this one. They are those of the smallest
// range around it, of a power of two, that has room for many times as many; the larger the range,
// the more. So lines may come in any order, and each costs no more than a short walk.
void config_text::make_room_before(line_id crowded) {
    line_id first = crowded;
    line_id last = crowded;
    std::uint64_t count = 1;
    for (std::uint64_t range = 8;; range *= 2) {
        const std::uint64_t begin = lines_[crowded].order & ~(range - 1);
        const auto is_in_range = [&](line_id other) {
            return other != none && lines_[other].order - begin < range;
        };
        while (is_in_range(lines_[first].previous)) {
            first = lines_[first].previous;
            ++count;
        }
        while (is_in_range(lines_[last].next)) {
            last = lines_[last].next;
            ++count;
        }
        if (4 * count * count < range) {
            const std::uint64_t step = range / (count + 1);
            std::uint64_t order = begin;
            for (line_id numbered = first; count > 0; --count) {
                order += step;
                lines_[numbered].order = order;
                numbered = lines_[numbered].next;
            }
            return;
        }
    }
}

// Enters a line into the index that it belongs to.
void config_text::learn(line_id added) {
    if (added == last_) {
        return;
    }
    if (is_header(lines_[added].text())) {
        headers_.add(added);
        section_is_current_ = false;
    } else if (is_in_body(added)) {
        keys_.add(added);
    }
}

// Takes a line, with the text it was learned with, out of its index.
void config_text::forget(line_id removed) {
    if (removed == last_) {
        return;
    }
    if (is_header(lines_[removed].text())) {
        headers_.remove(removed);
    } else if (is_in_body(removed)) {
        keys_.remove(removed);
    }
}

// Whether a line that is edited lies in the body of the section: no edit precedes its header.
bool config_text::is_in_body(line_id edited) const {
    return body_end_ != none && lines_[edited].order < lines_[body_end_].order;
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
