#pragma once

#include "KivFramework/internal/case_folding.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace KivFramework::internal {

/// Where a section's body lies in a text, as offsets.
struct section_range {
    std::size_t start; ///< the byte after the section's header line
    std::size_t end;   ///< the line feed before the next header line, or the text's length
};

/// Finds the body of a section, as `config_text` does; empty if there is no such section.
///
/// `end` is one less than `start` when the next header follows at once.
std::optional<section_range> find_section(std::string_view text, std::string_view section);

/// A configuration text that is edited key by key, each edit at the cost of what it touches.
///
/// The text is a list of lines; the bytes of a line stay where they were in the text given at first
/// until an edit writes new ones. Two indexes lead to lines: one to all section headers, one to the
/// keys of the section edited last, which is why edits are cheapest section by section.
class config_text {
public:
    /// Takes all its memory from `memory`, which has to last longer, and gives none of it back.
    /// Throws `std::length_error` for 2^30 lines or a line of 2^32 bytes and more, as do edits that
    /// add those.
    config_text(std::pmr::string text, std::pmr::monotonic_buffer_resource& memory);
    config_text(const config_text&) = delete;
    config_text& operator=(const config_text&) = delete;

    /// Gives a key of a section its value. All three have to last until `finish` is called, as an
    /// edit may wait for others.
    ///
    /// The edit rewrites the lines of the section that hold the key; if there are none it adds a
    /// line at the section's end, and if there is no such section adds it at the text's end.
    ///
    /// A header line is one that begins, after spaces, with "["; it belongs to the section if it
    /// begins with the section's name in brackets. The section's body follows its first header, or
    /// the last of several with no other header between them, and ends at the next other header. A
    /// line holds the key if what stands before its first "=", without spaces at either end,
    /// equals it. Case does not count. The last line is neither while it lacks a line feed.
    ///
    /// The lines are scanned with the offsets of the text as it was before each rewrite: after one
    /// that changes a line's length, the scan goes on where the next line began before, and it ends
    /// where the section ended before. So it may look at the rest of a rewritten line, at a part of
    /// a following one, at the first lines of the next section, or leave out the last ones of its
    /// own. An added line stands before the line feed at the body's end, and so continues the
    /// body's last line if that is not empty.
    void replace_key(std::string_view section, std::string_view key, std::string_view value);

    /// Makes the edits that wait.
    void finish();

    /// Calls `take` with the text, part by part, as views that hold until the next edit. Edits that
    /// wait are not in it.
    template <typename function>
    void for_each_part(function take) const {
        // Edits leave the bytes of lines anywhere in memory, so they are asked for ahead.
        line_id ahead = lines_[none].next;
        for (int i = 0; i < lines_ahead; ++i) {
            ahead = lines_[ahead].next;
        }
        const auto ask_ahead = [this, &ahead] {
            const line& next = lines_[ahead];
            __builtin_prefetch(next.begin);
            __builtin_prefetch(next.end());
            ahead = next.next;
        };
        for (line_id first = lines_[none].next; first != none;) {
            ask_ahead();
            // Lines that follow each other in memory too go as one, the line feeds between them
            // included.
            const char* const begin = lines_[first].begin;
            const line* last = &lines_[first];
            while (last->next != none && lines_[last->next].begin == last->end() + 1) {
                last = &lines_[last->next];
                ask_ahead();
            }
            const bool ends_in_line_feed = last->next != none;
            take(std::string_view(begin, static_cast<std::size_t>(last->end() - begin) +
                                             (ends_in_line_feed ? 1U : 0U)));
            first = last->next;
        }
    }

private:
    using line_id = std::uint32_t; // where the line is in `lines_`

    static constexpr line_id none = 0;
    static constexpr line_id all_removed = UINT32_MAX; // in the index, of the lines of a key

    // Many lines are reached one by one in no order, so each lies in a single line of the cache.
    struct alignas(32) line {
        const char* begin; // of its text; in memory a line feed follows that, for the last line too
        std::uint64_t order; // grows along the list, with gaps for lines to come
        std::uint32_t size;  // of its text, without the line feed
        line_id previous;
        line_id next;     // none for the last line, the only one without a line feed
        line_id same_key; // the next line in the text with the same key in the same index

        std::string_view text() const { return {begin, size}; }
        const char* end() const { return begin + size; }
    };

    static constexpr int lines_ahead = 16;

    struct edit {
        std::string_view key;
        std::string_view value;
        std::uint32_t hash; // of the key
        line_id likely;     // the line that it will most probably change
    };

    // A byte of the text, or its end. Beyond the end the column of the last line goes on growing.
    struct place {
        line_id line;
        std::size_t column;
    };

    // Leads from a key to the lines that have it, in the order of the text. Lines with the empty
    // key are left out.
    class line_index {
    public:
        using key_function = std::string_view (*)(std::string_view line_text);
        using predicate = bool (*)(const case_folding& folding, std::string_view line_text,
                                   std::string_view key);

        line_index(const case_folding& folding, std::pmr::vector<line>& lines, key_function key_of,
                   predicate has_key)
            : folding_(folding), lines_(lines), key_of_(key_of), has_key_(has_key),
              gathered_(lines.get_allocator()), slots_(2, lines.get_allocator()) {}

        // Many lines are entered in three steps: after `clear` they are gathered, in their order.
        // It is cheaper to say first how many they will be at most.
        void expect(std::size_t most) { gathered_.reserve(most); }
        void clear();
        void gather(line_id gathered);
        void enter_gathered();

        // Enters a line; cheap if it precedes all others of its key.
        void add(line_id added);
        // Removes a line that has the text that it was entered with.
        void remove(line_id removed);

        // The first line that has the key, or none.
        line_id first(std::uint32_t hash, std::string_view key) { return slot_of(hash, key).first; }

        // Asks for the memory where the search for a key begins.
        void prefetch(std::uint32_t hash) const {
            __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
        }
        // The line that `first` will most probably find.
        line_id likely(std::uint32_t hash) const;

    private:
        // The hash of a key and its first line, or none in a free slot. With the hash kept here, no
        // other lines than those of the key are looked at.
        struct slot {
            std::uint32_t hash = 0;
            line_id first = none;
        };

        slot& slot_of(std::uint32_t hash, std::string_view key);
        void add(line_id added, std::uint32_t hash);
        void grow();

        const case_folding& folding_;
        std::pmr::vector<line>& lines_;
        key_function key_of_;
        predicate has_key_;
        std::pmr::vector<slot> gathered_;
        std::pmr::vector<slot> slots_; // a power of two
        std::size_t used_ = 0;
    };

    void make(const edit& due);
    bool open_section(std::string_view name);
    void append_section(const edit& first);
    bool is_all_that_changes(line_id first, std::string_view new_line, std::string_view key) const;
    bool rewrite_key(std::string_view key, line_id first, std::string_view new_line);
    line_id line_after(line_id position, std::string_view key, line_id& candidate) const;
    void insert_at_end(std::string_view new_line);
    line_id last_line_of_section() const;
    bool is_in_body(line_id edited) const;

    bool before(place left, place right) const;
    place forward(place from, std::size_t count) const;
    place back(place from, std::size_t count) const;

    void replace_rest(place from, std::string_view replacement);
    void insert_lines_after(line_id position, std::string_view text);
    line_id insert_after(line_id position, std::string_view text);
    line_id append(std::string_view text, std::uint64_t order, line_id previous, line_id next);
    void set_text(line_id changed, std::string_view text);
    void continue_line(place from, std::string_view rest);
    void make_room_before(line_id crowded);
    void learn(line_id added);
    void forget(line_id removed);
    char* new_bytes(std::size_t count);
    std::string_view stored(std::initializer_list<std::string_view> parts,
                            std::string_view room = {});

    std::pmr::monotonic_buffer_resource& memory_;
    std::pmr::string text_;
    const case_folding folding_;
    std::span<char> free_bytes_;   // for new texts
    line_id growing_ = none;       // the line continued last, if it still has ...
    std::span<char> room_;         // ... these bytes for itself
    std::pmr::vector<line> lines_; // a list, behind an entry that is no line
    line_id last_ = none;

    std::pmr::vector<edit> edits_; // that wait, all of one section
    std::string_view edited_section_;

    line_index headers_;

    // The section opened last. Its body lies between two lines: its header, and either the next
    // header or the last line of the text.
    std::string section_;
    bool section_is_current_ = false; // no header has come since the section was opened
    line_id header_ = none;
    line_id body_end_ = none;
    line_index keys_; // of the body's lines
};

} // namespace KivFramework::internal
