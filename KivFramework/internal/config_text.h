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

/// A key and the value that it gets.
struct assignment {
    std::string_view key;
    std::string_view value;
};

/// A configuration text that is edited key by key, each edit at the cost of what it touches.
///
/// The text is a list of lines; the bytes of a line stay where they were in the text given at first
/// until an edit writes new ones. Two indexes lead to lines: one to all section headers, one to the
/// keys of the section edited last, which is why edits are cheapest section by section.
class config_text {
public:
    explicit config_text(std::string text);
    config_text(const config_text&) = delete;
    config_text& operator=(const config_text&) = delete;

    /// Gives keys of a section their values, one after the other.
    ///
    /// Each one rewrites the lines of the section that hold the key; if there are none it adds a
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
    void replace_keys(std::string_view section, std::span<const assignment> assignments);

    /// Calls `take` with the text, part by part, as views that hold until the next edit.
    template <typename function>
    void for_each_part(function take) const {
        // Edits leave the bytes of lines anywhere in memory, so they are asked for ahead.
        const line* ahead = first_;
        for (int i = 0; i < lines_ahead && ahead != nullptr; ++i) {
            ahead = ahead->next;
        }
        const auto ask_ahead = [&ahead] {
            if (ahead != nullptr) {
                __builtin_prefetch(ahead->text.data());
                ahead = ahead->next;
            }
        };
        for (const line* first = first_; first != nullptr;) {
            ask_ahead();
            // Lines that follow each other in memory too go as one, the line feeds between them
            // included.
            const line* last = first;
            while (last->next != nullptr && last->next->text.data() == end_of(*last) + 1) {
                last = last->next;
                ask_ahead();
            }
            const char* const begin = first->text.data();
            const bool ends_in_line_feed = last->next != nullptr;
            take(std::string_view(begin, static_cast<std::size_t>(end_of(*last) - begin) +
                                             (ends_in_line_feed ? 1U : 0U)));
            first = last->next;
        }
    }

private:
    struct line {
        std::string_view text; // without its line feed; in memory one follows it nevertheless
        std::uint64_t order;   // grows along the list, with gaps for lines to come
        line* previous;
        line* next;         // null for the last line, the only one without a line feed
        line* same_key;     // the next line in the text with the same key in the same index
        std::uint32_t hash; // of that key
    };

    static constexpr int lines_ahead = 16;

    // A byte of the text, or its end. Beyond the end the column of the last line goes on growing.
    struct place {
        config_text::line* line;
        std::size_t column;
    };

    // Leads from a key to the lines that have it, in the order of the text.
    class line_index {
    public:
        using predicate = bool (*)(const case_folding& folding, std::string_view line_text,
                                   std::string_view key);

        line_index(const case_folding& folding, predicate has_key)
            : folding_(folding), has_key_(has_key) {}

        // Forgets all lines and makes room for `count` others.
        void reset(std::size_t count);
        // The first line that has the key, or null.
        line* first(std::uint32_t hash, std::string_view key) { return *slot_of(hash, key); }
        // Adds a line with its key; cheap if it precedes all others of that key.
        void add(line& added, std::string_view key);
        // The same with the key's hash, where that is known already.
        void add(line& added, std::string_view key, std::uint32_t hash);
        // Removes a line, given with the key it was added with.
        void remove(line& removed, std::string_view key);

        // The three steps from a key to its line, taken ahead so that memory is there in time.
        void prefetch_slot(std::uint32_t hash) const;
        void prefetch_line(std::uint32_t hash) const;
        void prefetch_text(std::uint32_t hash) const;

    private:
        line** slot_of(std::uint32_t hash, std::string_view key);
        void grow();

        static line removed_; // in the slot of a key whose lines were all removed

        const case_folding& folding_;
        predicate has_key_;
        std::vector<line*> slots_;
        std::size_t used_ = 0;
    };

    static const char* end_of(const line& line) { return line.text.data() + line.text.size(); }

    void replace_key(std::string_view section, const assignment& given, std::uint32_t hash);
    bool open_section(std::string_view name);
    void learn_keys_between(const line& header, const line& end);
    void append_section(std::string_view name, const assignment& given);
    bool rewrite_key(std::string_view key, line* candidate, std::string_view new_line);
    place next_candidate(place from, line*& candidate) const;
    void insert_at_end(std::string_view new_line);
    line* last_line_of_section() const;
    bool is_in_body(const line& edited) const;

    static bool before(place left, place right);
    static place forward(place from, std::size_t count);
    static place back(place from, std::size_t count);

    void replace_rest(place from, std::string_view replacement);
    void insert_lines_after(line& position, std::string_view text);
    line* insert_after(line& position, std::string_view text);
    void renumber();
    void learn(line& added);
    void learn_header(line& added);
    void learn_key(line& added);
    void forget(line& removed);
    char* new_bytes(std::size_t count);
    std::string_view stored(std::initializer_list<std::string_view> parts,
                            std::string_view room = {});

    std::string text_;
    const case_folding folding_;
    std::pmr::monotonic_buffer_resource memory_; // of lines and new texts
    std::span<char> free_bytes_;                 // for new texts
    line* first_ = nullptr;
    line* last_ = nullptr;
    line_index headers_;

    // The section edited last. Its body lies between two lines: its header, and either the next
    // header or the last line of the text.
    std::string section_;
    bool section_is_current_ = false; // no header has come since the section was opened
    line* header_ = nullptr;
    line* body_end_ = nullptr;
    line_index keys_; // of the body's lines, the empty key excepted
};

} // namespace KivFramework::internal
