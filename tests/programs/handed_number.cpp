// Hands a number to a thread, for helgrind to judge: `locked`, `released` or `static` in good
// order; `relaxed`, `plain` or `shared` without.

#include <atomic>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>

namespace {

int number = 0;
std::atomic<bool> is_there = false;

void hand_over(std::memory_order set, std::memory_order seen) {
    std::thread reader([seen] {
        while (!is_there.load(seen)) {
            std::this_thread::yield();
        }
        ++number;
    });
    number = 1;
    is_there.store(true, set);
    reader.join();
}

void in_two_threads(const std::function<void()>& change) {
    std::thread other(change);
    change();
    other.join();
}

int& number_made_once() {
    static int* const made = new int(1); // freed by nobody, as the program ends
    return *made;
}

} // namespace

int main(int count, char** arguments) {
    const std::string_view way = count == 2 ? arguments[1] : "";
    if (way == "locked") {
        std::mutex lock;
        in_two_threads([&lock] {
            const std::lock_guard guard(lock);
            ++number;
        });
    } else if (way == "released") {
        hand_over(std::memory_order_release, std::memory_order_acquire);
    } else if (way == "static") {
        in_two_threads([] { is_there = number_made_once() == 1; });
    } else if (way == "relaxed") {
        hand_over(std::memory_order_relaxed, std::memory_order_relaxed);
    } else if (way == "plain") {
        in_two_threads([] { ++number; });
    } else if (way == "shared") {
        std::thread reader([] { number = is_there ? 1 : 2; });
        reinterpret_cast<volatile bool&>(is_there) = true; // beside the atomic read
        reader.join();
    } else {
        return 2;
    }
    return 0;
}
