#include "KivFramework/internal/percent_references.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace KivFramework::internal {
namespace {

class expansion {
public:
    expansion(const std::string& text, const variable_lookup& find) : find_(find) {
        put_in_front(text);
    }

    std::optional<std::string> run() {
        while (!pending_.empty() && !endless_) {
            const char c = pending_.back();
            pending_.pop_back();
            if (c == '%') {
                take_reference();
            } else {
                result_ += c;
            }
        }
        if (endless_) {
            return std::nullopt;
        }
        return std::move(result_);
    }

private:
    // A value whose expansion goes on: nothing behind it, `rest` characters, was looked at yet.
    struct open_value {
        const std::string* value;
        std::size_t rest;
    };

    // Called with the "%" before it taken.
    void take_reference() {
        const std::size_t close = pending_.rfind('%');
        if (close == std::string::npos) {
            take_unclosed_reference();
        } else if (close + 1 == pending_.size()) {
            drop_second_sign();
        } else {
            const std::string name = front(pending_.size() - close - 1);
            keep_last(close);
            expand(name);
        }
    }

    // The last character of the text serves as the closing sign.
    void take_unclosed_reference() {
        const std::string name = pending_.empty() ? std::string() : front(pending_.size() - 1);
        look_at_end();
        expand(name);
    }

    void drop_second_sign() {
        if (pending_.size() == 1) {
            look_at_end();
        } else {
            keep_last(pending_.size() - 2);
        }
        pending_ += '%';
    }

    void expand(const std::string& name) {
        const std::string* value = find_(name);
        if (value == nullptr) {
            return;
        }
        endless_ = leads_back_to_itself(value);
        open_values_.push_back({value, pending_.size()});
        if (pending_.empty()) {
            values_at_end_.push_back(value);
        }
        put_in_front(*value);
    }

    // Whether the same expansion went on already and will therefore come here again, perhaps with
    // a longer text each time: either inside the value itself, before anything behind it mattered,
    // or a second time with nothing behind it. As the variables are few, every endless expansion
    // comes to one of the two.
    bool leads_back_to_itself(const std::string* value) const {
        const auto is_same = [value](const open_value& open) { return open.value == value; };
        return std::any_of(open_values_.begin(), open_values_.end(), is_same) ||
               (pending_.empty() && std::find(values_at_end_.begin(), values_at_end_.end(),
                                              value) != values_at_end_.end());
    }

    void put_in_front(const std::string& text) { pending_.append(text.rbegin(), text.rend()); }

    std::string front(std::size_t length) const {
        const auto begin = pending_.rbegin();
        return {begin, begin + static_cast<std::string::difference_type>(length)};
    }

    // Drops what stands before the last `rest` characters, and the values that reached into it.
    void keep_last(std::size_t rest) {
        pending_.resize(rest);
        while (!open_values_.empty() && open_values_.back().rest > rest) {
            open_values_.pop_back();
        }
    }

    // Drops all pending text after its end played a part: whatever stood there mattered.
    void look_at_end() {
        pending_.clear();
        open_values_.clear();
    }

    const variable_lookup& find_;
    std::string pending_; // back to front, so that taking and putting in front are cheap
    std::string result_;
    std::vector<open_value> open_values_; // by growing rest
    std::vector<const std::string*> values_at_end_;
    bool endless_ = false;
};

} // namespace
} // namespace KivFramework::internal

std::optional<std::string>
KivFramework::internal::expand_percent_references(const std::string& text,
                                                  const variable_lookup& find) {
    return expansion(text, find).run();
}
