// Messages between two streams on one queue while the system fails.

#include "KivFramework/KivKqueue.h"
#include "KivFramework/KivProcesses.h"
#include "KivFramework/KivSocket.h"

#include "tests/torture/torture.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace KivFramework;
using KivSocket::kivSocketStream;

// Digits that zlib makes little of.
std::string random_digits(std::size_t count) {
    std::string digits;
    unsigned int state = 1;
    while (digits.size() < count) {
        state = state * 1103515245U + 12345U;
        digits += static_cast<char>('!' + (state >> 16U) % 90U);
    }
    return digits;
}

class message_exchange : public kiv_test::scenario {
public:
    const char* name() const override { return "message_exchange"; }

    std::vector<kiv_test::way_to_fail> ways() const override {
        using namespace kiv_test;
        return {no_memory,   send_refused, send_broken, recv_empty,
                recv_broken, no_queue,     no_watch,    wait_interrupted};
    }

    void prepare() override {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sockets_),
                  0);
        queue_ = -1;
        queued_ = received_ = lost_ = 0;
        sent_bytes_ = received_bytes_ = 0;
        broken_ = false;
        problem_ = nullptr;
    }

    void attempt() override {
        queue_ = kqueue();
        if (queue_ == -1) {
            return;
        }
        struct closer {
            int descriptor;
            ~closer() { ::close(descriptor); }
        };
        const closer closed{queue_};
        const mutex_owner counters;
        kivSocketStream sender;
        kivSocketStream receiver;
        connect(sender, sockets_[0], counters);
        connect(receiver, sockets_[1], counters);
        exchange(sender, receiver);
        for (kivSocketStream* const stream : {&sender, &receiver}) {
            if (pthread_mutex_trylock(stream->mutex) == 0) {
                pthread_mutex_unlock(stream->mutex);
            } else {
                problem_ = "a stream is still locked";
            }
        }
        if (pthread_mutex_trylock(counters.mutex) == 0) {
            pthread_mutex_unlock(counters.mutex);
        } else {
            problem_ = "the counters are still locked";
        }
    }

    void finish() override {
        ::close(sockets_[0]);
        ::close(sockets_[1]);
    }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (problem_ != nullptr) {
            return problem_;
        }
        if (queue_ == -1 || happened.threw || broken_) {
            return ""; // it came to an end, as the host was told
        }
        const bool recovers = !happened.for_ever;
        if (recovers && received_ + lost_ != bodies_.size()) {
            return "messages did not arrive";
        }
        // Only a compressed message that there is no memory to unpack for is lost.
        if (lost_ > (happened.way.call == kiv_test::fallible::memory && recovers ? 1U : 0U) &&
            recovers) {
            return "a message was lost";
        }
        if (recovers && sent_bytes_ != received_bytes_) {
            return "the counters disagree";
        }
        return "";
    }

    std::string flaw() override {
        const bool whole = problem_ == nullptr && received_ == bodies_.size() &&
                           sent_bytes_ == received_bytes_ && sent_bytes_ > 0;
        return whole ? "" : "messages did not arrive";
    }

private:
    struct mutex_owner {
        pthread_mutex_t* mutex = KivProcesses::CreateMutex();
        mutex_owner() = default;
        ~mutex_owner() { KivProcesses::DestroyMutex(mutex); }
        mutex_owner(const mutex_owner&) = delete;
        mutex_owner& operator=(const mutex_owner&) = delete;
    };

    void connect(kivSocketStream& stream, int socket, const mutex_owner& counters) {
        stream.socket = socket;
        stream.RegisterCounters(&sent_bytes_, &received_bytes_,
                                const_cast<pthread_mutex_t**>(&counters.mutex));
        stream.RegisterKq(queue_);
    }

    // The host's loop. A host that has no memory tries again; where it is told nothing, it asks the
    // streams themselves now and then.
    void exchange(kivSocketStream& sender, kivSocketStream& receiver) {
        constexpr int most_idle_rounds = 8;
        for (int idle = 0; idle < most_idle_rounds && received_ + lost_ < bodies_.size();) {
            const std::size_t before = queued_ + received_ + lost_;
            queue_next(sender);
            struct kevent events[4];
            const timespec no_wait{};
            const int count = kevent(queue_, nullptr, 0, events, 4, &no_wait);
            for (int i = 0; i < count; ++i) {
                auto& stream = *static_cast<kivSocketStream*>(events[i].udata);
                if (events[i].filter == EVFILT_WRITE) {
                    stream.Write();
                } else {
                    receive(stream);
                }
            }
            if (queued_ + received_ + lost_ != before) {
                idle = 0;
                continue;
            }
            ++idle;
            sender.Write();
            receive(receiver);
        }
        broken_ = broken_ || sender.closed != 0;
    }

    void queue_next(kivSocketStream& sender) {
        if (queued_ == bodies_.size()) {
            return;
        }
        try {
            queued_ += sender.AddMessage("T", bodies_[queued_].c_str()) ? 1U : 0U;
        } catch (const std::bad_alloc&) {
            static_cast<void>(sender); // as it was, so the next round tries again
        }
    }

    void receive(kivSocketStream& stream) {
        try {
            if (stream.Read() == 0) {
                broken_ = true;
            }
            while (char* const message = stream.GetNextMessage()) {
                check(message);
                KivSocket::destroyEncodedMessage(message);
            }
        } catch (const std::bad_alloc&) {
            static_cast<void>(stream); // what it has stays there for the next round
        }
    }

    void check(const char* message) {
        while (received_ + lost_ < bodies_.size()) {
            if (message[0] == 'T' && bodies_[received_ + lost_] == message + 1) {
                ++received_;
                return;
            }
            ++lost_;
        }
        problem_ = "a message that was never sent";
    }

    const std::vector<std::string> bodies_ = {"",
                                              "plain",
                                              std::string(11, 'z'),
                                              std::string(1000, 'z'),
                                              random_digits(600),
                                              random_digits(9000),
                                              "the last one, plain again"};
    int sockets_[2] = {-1, -1};
    int queue_ = -1;
    std::size_t queued_ = 0;
    std::size_t received_ = 0;
    std::size_t lost_ = 0;
    long long sent_bytes_ = 0;
    long long received_bytes_ = 0;
    bool broken_ = false;
    const char* problem_ = nullptr;
};

TEST(Torture, MessageExchangeSurvivesEveryFailure) {
    message_exchange tortured;
    kiv_test::torture(tortured);
}

} // namespace
