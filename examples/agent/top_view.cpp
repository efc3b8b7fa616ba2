#include "top_view.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include <KivFramework/KivStringHelper.h>

using namespace KivFramework;

namespace {

using agent::job_row;
using agent::picture_style;
using agent::snapshot;

enum class tone { plain, strong, faint, low, middle, high };

struct span {
    std::string text;
    tone look = tone::plain;
};

using row = std::vector<span>;

constexpr int label_width = 8;       // "memory", "cpu 63" and two blanks
constexpr int value_width = 7;       // a blank and "100.0%"
constexpr int whole_value_width = 5; // a blank and "100%", where meters share a row
constexpr int gap_width = 2;         // between them
constexpr int shortest_bar = 4;
constexpr int longest_bar = 72;
constexpr int fewest_rows_with_blank_ones = 14;
constexpr int fewest_rows_with_everything = 8; // with fewer, the load is what counts
constexpr int fewest_rows_with_footer = 4;
constexpr int most_job_rows_kept = 3; // where processors compete with jobs for room
constexpr int longest_job_name = 20;
constexpr int longest_job_state = 34;

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Columns on the screen, one for each UTF-8 character.
int columns_of(const std::string& text) {
    return static_cast<int>(
        std::count_if(text.begin(), text.end(), [](char c) { return !continues_character(c); }));
}

// Text from elsewhere must not steer the terminal.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    return text;
}

std::string first_columns(const std::string& text, int columns) {
    std::size_t end = 0;
    for (; end < text.size(); ++end) {
        if (!continues_character(text[end]) && columns-- == 0) {
            break;
        }
    }
    return text.substr(0, end);
}

// The text, cut with an ellipsis where it is wider.
std::string fitted(const std::string& text, int columns, const picture_style& style) {
    if (columns_of(text) <= columns) {
        return text;
    }
    const std::string ellipsis = style.unicode ? "…" : "...";
    const int kept = columns - columns_of(ellipsis);
    return kept < 1 ? first_columns(text, columns) : first_columns(text, kept) + ellipsis;
}

std::string padded(const std::string& text, int columns) {
    return text +
           std::string(static_cast<std::size_t>(std::max(columns - columns_of(text), 0)), ' ');
}

std::string padded_left(const std::string& text, int columns) {
    return std::string(static_cast<std::size_t>(std::max(columns - columns_of(text), 0)), ' ') +
           text;
}

std::string repeated(const char* text, int count) {
    std::string result;
    for (int i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

std::string plus(std::string count) {
    return count.insert(0, 1, '+');
}

std::string counted(long long count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

int width_of(const row& spans) {
    int width = 0;
    for (const span& part : spans) {
        width += columns_of(part.text);
    }
    return width;
}

tone tone_of_load(double percent) {
    if (percent < 50) {
        return tone::low;
    }
    return percent < 85 ? tone::middle : tone::high;
}

// A bar of exactly `width` columns; unicode has characters for half a column.
void append_bar(row& to, double percent, int width, const picture_style& style) {
    const double filled = std::clamp(percent / 100, 0.0, 1.0) * width;
    const tone look = tone_of_load(percent);
    if (!style.unicode) {
        const int whole = static_cast<int>(std::lround(filled));
        to.push_back({repeated("#", whole), look});
        to.push_back({repeated(".", width - whole), tone::faint});
        return;
    }
    const int halves = static_cast<int>(std::lround(filled * 2));
    to.push_back({repeated("━", halves / 2) + repeated("╸", halves % 2), look});
    to.push_back({repeated("─", width - (halves + 1) / 2), tone::faint});
}

// Label, bar and value in exactly `width` columns where that is possible at all; without the bar
// where there is no room for one.
row meter(const std::string& label, double percent, const std::string& value, int width,
          const picture_style& style) {
    row result = {{label}};
    const int bar = width - columns_of(label) - columns_of(value);
    if (bar >= shortest_bar) {
        append_bar(result, percent, bar, style);
    }
    result.push_back({value});
    return result;
}

std::string value_text(double percent) {
    return padded_left(agent::percent_text(percent), value_width);
}

std::string whole_value_text(double percent) {
    return padded_left(std::to_string(std::lround(percent)) + "%", whole_value_width);
}

class picture {
public:
    picture(const snapshot& shown, const picture_style& style) : shown_(shown), style_(style) {}

    std::vector<row> lay_out(const std::string& clock, const std::string& footer) {
        add_header(clock);
        add_blank_row();
        add_processors();
        add_memory();
        const bool has_footer = is_limited() && style_.rows >= fewest_rows_with_footer;
        const int rows_below = has_footer ? 1 : 0;
        add_jobs(rows_below);
        if (is_limited()) {
            rows_.resize(static_cast<std::size_t>(style_.rows - rows_below));
        }
        if (has_footer) {
            rows_.push_back({{footer, tone::faint}});
        }
        return std::move(rows_);
    }

private:
    bool is_limited() const { return style_.rows > 0; }
    bool has_everything() const {
        return !is_limited() || style_.rows >= fewest_rows_with_everything;
    }
    bool has_blank_rows() const {
        return !is_limited() || style_.rows >= fewest_rows_with_blank_ones;
    }
    int row_count() const { return static_cast<int>(rows_.size()); }
    int processor_count() const { return static_cast<int>(shown_.processor_loads.size()); }

    void add_blank_row() {
        if (has_blank_rows()) {
            rows_.emplace_back();
        }
    }

    // A row with a text at its right end, if there is room for both.
    void add_with_right(row line, const std::string& right) {
        const int room = style_.columns - width_of(line);
        if (room > columns_of(right)) {
            line.push_back({padded_left(right, room)});
        }
        rows_.push_back(std::move(line));
    }

    void add_header(const std::string& clock) {
        add_with_right({{"kiv-agent on " + printable(shown_.host), tone::strong},
                        {" (pid " + std::to_string(shown_.pid) + ")", tone::faint}},
                       clock);
        if (has_everything()) {
            add_with_right({{"up " + KivStringHelper::FormatTimespan(shown_.uptime_seconds)}},
                           counted(shown_.clients, "client") + ", " +
                               counted(shown_.questions, "question"));
        }
    }

    std::string memory_detail() const {
        return shown_.memory ? "  " + agent::memory_text(*shown_.memory) : "";
    }

    // The width of the meters that stand below one another; what is known about the memory in
    // words stands behind them where there is room.
    int meter_width() const {
        const int most = std::min(style_.columns, label_width + longest_bar + value_width);
        const int beside_detail = style_.columns - columns_of(memory_detail());
        const int least = label_width + 2 * shortest_bar + value_width;
        return beside_detail >= least ? std::min(most, beside_detail) : most;
    }

    // The rows that processors may have without driving out everything else.
    int rows_for_processors() const {
        if (!is_limited()) {
            return processor_count();
        }
        const int wanted = static_cast<int>(shown_.jobs.size()) + 1;
        const int job_rows = has_everything() ? std::min(wanted, most_job_rows_kept) : 0;
        const int blank_rows = has_blank_rows() ? 2 : 0;
        const int memory_and_footer = 2;
        return std::max(style_.rows - row_count() - job_rows - blank_rows - memory_and_footer, 1);
    }

    void add_processors() {
        if (processor_count() > rows_for_processors()) {
            add_processor_grid(rows_for_processors());
            return;
        }
        for (int i = 0; i < processor_count(); ++i) {
            const std::string label = padded("cpu " + std::to_string(i), label_width);
            rows_.push_back(meter(label, load(i), value_text(load(i)), meter_width(), style_));
        }
    }

    // Processors in columns, counted downwards; the last place counts those that have none.
    void add_processor_grid(int rows_free) {
        const int number_width = static_cast<int>(std::to_string(processor_count() - 1).size());
        const int narrowest = number_width + 1 + whole_value_width;
        const int most_across = (style_.columns + gap_width) / (narrowest + gap_width);
        const int across =
            std::clamp(rows_needed(processor_count(), rows_free), 1, std::max(most_across, 1));
        const int down = std::min(rows_needed(processor_count(), across), rows_free);
        const int places = across * down;
        const int width = (style_.columns - (across - 1) * gap_width) / across;
        for (int y = 0; y < down; ++y) {
            row line;
            for (int x = 0; x < across && x * down + y < processor_count(); ++x) {
                const int i = x * down + y;
                line.push_back({x == 0 ? "" : std::string(gap_width, ' ')});
                if (i == places - 1 && processor_count() > places) {
                    const std::string more = plus(std::to_string(processor_count() - i));
                    const std::string in_words = more + " more";
                    const bool fits = columns_of(in_words) <= width;
                    line.push_back({fits ? in_words : more, tone::faint});
                    continue;
                }
                const std::string label = padded_left(std::to_string(i), number_width) + " ";
                const row cell = meter(label, load(i), whole_value_text(load(i)), width, style_);
                line.insert(line.end(), cell.begin(), cell.end());
            }
            rows_.push_back(line);
        }
    }

    static int rows_needed(int count, int across) { return (count + across - 1) / across; }

    double load(int processor) const {
        return shown_.processor_loads[static_cast<std::size_t>(processor)];
    }

    void add_memory() {
        const std::string label = padded("memory", label_width);
        if (!shown_.memory || shown_.memory->amount == 0) {
            rows_.push_back({{label}, {"not known yet", tone::faint}});
            return;
        }
        const double percent = 100 * static_cast<double>(shown_.memory->used) /
                               static_cast<double>(shown_.memory->amount);
        row line = meter(label, percent, value_text(percent), meter_width(), style_);
        line.push_back({memory_detail()});
        rows_.push_back(line);
    }

    void add_jobs(int rows_below) {
        add_blank_row();
        if (shown_.jobs.empty()) {
            rows_.push_back({{"no jobs are configured", tone::faint}});
            return;
        }
        std::vector<job_row> jobs = shown_.jobs;
        std::stable_partition(jobs.begin(), jobs.end(),
                              [](const job_row& job) { return job.running; });
        std::size_t count = jobs.size();
        const int rows_free = style_.rows - row_count() - rows_below - 1; // without the title
        if (is_limited() && rows_free < static_cast<int>(jobs.size())) {
            count = static_cast<std::size_t>(std::max(rows_free - 1, 0));
        }
        int name_width = 3;
        int state_width = 5;
        for (job_row& job : jobs) {
            job.name = fitted(printable(job.name), longest_job_name, style_);
            job.state = printable(job.state);
            if (is_limited()) {
                job.state = fitted(job.state, longest_job_state, style_);
            }
            job.command = printable(job.command);
            name_width = std::max(name_width, columns_of(job.name));
            state_width = std::max(state_width, columns_of(job.state));
        }
        const std::string gap = "  ";
        rows_.push_back(
            {{padded("JOB", name_width) + gap + padded("STATE", state_width) + gap + "COMMAND",
              tone::faint}});
        for (std::size_t i = 0; i < count; ++i) {
            const int room = style_.columns - name_width - state_width - 2 * columns_of(gap);
            rows_.push_back(
                {{padded(jobs[i].name, name_width) + gap, tone::strong},
                 {padded(jobs[i].state, state_width) + gap,
                  jobs[i].running ? tone::low : tone::plain},
                 {is_limited() ? fitted(jobs[i].command, room, style_) : jobs[i].command}});
        }
        if (count < jobs.size()) {
            rows_.push_back(
                {{plus(counted(static_cast<long long>(jobs.size() - count), "more job")),
                  tone::faint}});
        }
    }

    const snapshot& shown_;
    const picture_style& style_;
    std::vector<row> rows_;
};

const char* sequence_of(tone look) {
    switch (look) {
    case tone::plain:
        return "";
    case tone::strong:
        return "\x1b[1m";
    case tone::faint:
        return "\x1b[90m";
    case tone::low:
        return "\x1b[32m";
    case tone::middle:
        return "\x1b[33m";
    case tone::high:
        return "\x1b[31m";
    }
    return "";
}

// One line of the output, no wider than the style says where it has a screen to fit.
std::string text_of(const row& spans, const picture_style& style) {
    std::string text;
    int room = style.columns;
    for (const span& part : spans) {
        const std::string shown = style.rows > 0 ? first_columns(part.text, room) : part.text;
        room -= columns_of(shown);
        const bool is_coloured = style.colour && part.look != tone::plain && !shown.empty();
        text += is_coloured ? sequence_of(part.look) + shown + "\x1b[0m" : shown;
    }
    if (!style.colour) {
        text.erase(text.find_last_not_of(' ') + 1);
    }
    return text;
}

} // namespace

std::vector<std::string> agent::picture_of(const snapshot& shown, const picture_style& style,
                                           const std::string& clock, const std::string& footer) {
    std::vector<std::string> lines;
    for (const row& spans : picture(shown, style).lay_out(clock, footer)) {
        lines.push_back(text_of(spans, style));
    }
    return lines;
}
