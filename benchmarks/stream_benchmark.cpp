// The message stream beside other ways to send messages over loopback TCP, the cost of a message
// with little and with much buffered, and compression beside a zlib state that is reused.
//
// Every loop sends and receives on one thread; peers that have threads of their own use them, so
// both the wall time and the processor time of the whole process are shown.

#include "KivFramework/KivKqueue.h"
#include "KivFramework/KivSocket.h"

#include <zlib.h>

#include <benchmark/benchmark.h>
#if defined(KIV_HAVE_BOOST)
#include <boost/asio.hpp>
#endif
#if defined(KIV_HAVE_NNG)
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#endif
#if defined(KIV_HAVE_ZMQ)
#include <zmq.h>
#endif

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace KivFramework;
using namespace KivFramework::KivSocket;

constexpr char body[] = "0123456789";
constexpr std::size_t body_size = sizeof(body) - 1;

void require(bool holds, const char* what) {
    if (!holds) {
        std::perror(what);
        std::abort();
    }
}

// Two streams over one loopback connection.
class stream_pair {
public:
    stream_pair() {
        const int listener = CreateSocket(0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        require(::bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0, "bind");
        require(!ListenSocket(listener), "listen");
        require(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0,
                "getsockname");
        near.socket = CreateSocket(0);
        require(ConnectSocket(near.socket, "127.0.0.1", ntohs(address.sin_port)), "connect");
        far.socket = AcceptSocket(listener, nullptr, nullptr);
        require(far.socket != -1, "accept");
        for (kivSocketStream* stream : {&near, &far}) {
            SetBlockStatus(stream->socket, /*blocking=*/false);
            SetNagleStatus(stream->socket, /*enabled=*/false);
            stream->SetBufferCheck(false);
        }
        ::close(listener);
    }

    ~stream_pair() {
        near.Close();
        far.Close();
    }

    stream_pair(const stream_pair&) = delete;
    stream_pair& operator=(const stream_pair&) = delete;

    kivSocketStream near;
    kivSocketStream far;
};

// Sends `count` messages from one end and takes them at the other.
void exchange(stream_pair& streams, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
        streams.near.AddMessage("m", body);
    }
    std::int64_t received = 0;
    while (received < count) {
        if (streams.near.HasToWrite()) {
            streams.near.Write();
        }
        streams.far.Read();
        while (char* const message = streams.far.GetNextMessage()) {
            benchmark::DoNotOptimize(message[1]);
            destroyEncodedMessage(message);
            ++received;
        }
    }
}

void exchange_library(benchmark::State& state) {
    stream_pair streams;
    for (auto _ : state) {
        exchange(streams, state.range(0));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// As above, with every interest update going to a queue.
void exchange_library_with_queue(benchmark::State& state) {
    stream_pair streams;
    const int queue = kqueue();
    streams.near.RegisterKq(queue);
    streams.far.RegisterKq(queue);
    for (auto _ : state) {
        exchange(streams, state.range(0));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    ::close(queue);
}

#if defined(KIV_HAVE_ZMQ)
void exchange_zeromq(benchmark::State& state) {
    void* const context = zmq_ctx_new();
    void* const far = zmq_socket(context, ZMQ_PAIR);
    void* const near = zmq_socket(context, ZMQ_PAIR);
    const int no_limit = 0;
    for (void* socket : {near, far}) {
        zmq_setsockopt(socket, ZMQ_SNDHWM, &no_limit, sizeof(no_limit));
        zmq_setsockopt(socket, ZMQ_RCVHWM, &no_limit, sizeof(no_limit));
    }
    require(zmq_bind(far, "tcp://127.0.0.1:*") == 0, "zmq_bind");
    char endpoint[64];
    std::size_t size = sizeof(endpoint);
    zmq_getsockopt(far, ZMQ_LAST_ENDPOINT, endpoint, &size);
    require(zmq_connect(near, endpoint) == 0, "zmq_connect");
    for (auto _ : state) {
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            zmq_send(near, body, body_size, 0);
        }
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            char message[64];
            benchmark::DoNotOptimize(zmq_recv(far, message, sizeof(message), 0));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    zmq_close(near);
    zmq_close(far);
    zmq_ctx_term(context);
}
#endif

#if defined(KIV_HAVE_NNG)
void exchange_nng(benchmark::State& state) {
    nng_socket far;
    nng_socket near;
    require(nng_pair0_open(&far) == 0 && nng_pair0_open(&near) == 0, "nng_pair0_open");
    for (const nng_socket socket : {near, far}) {
        nng_socket_set_int(socket, NNG_OPT_SENDBUF, 8192);
        nng_socket_set_int(socket, NNG_OPT_RECVBUF, 8192);
    }
    nng_listener listener;
    require(nng_listen(far, "tcp://127.0.0.1:0", &listener, 0) == 0, "nng_listen");
    nng_sockaddr address;
    nng_listener_get_addr(listener, NNG_OPT_LOCADDR, &address);
    const std::string url = "tcp://127.0.0.1:" + std::to_string(ntohs(address.s_in.sa_port));
    require(nng_dial(near, url.c_str(), nullptr, 0) == 0, "nng_dial");
    for (auto _ : state) {
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            nng_send(near, const_cast<char*>(body), body_size, 0);
        }
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            char message[64];
            std::size_t size = sizeof(message);
            benchmark::DoNotOptimize(nng_recv(far, message, &size, 0));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    nng_close(near);
    nng_close(far);
}
#endif

#if defined(KIV_HAVE_BOOST)
// Frames of a length and a body, as a program on Asio would write them itself.
void exchange_asio(benchmark::State& state) {
    using boost::asio::ip::tcp;
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, {boost::asio::ip::address_v4::loopback(), 0});
    tcp::socket near(context);
    near.connect(acceptor.local_endpoint());
    tcp::socket far = acceptor.accept();
    near.set_option(tcp::no_delay(true));
    near.non_blocking(true);
    far.non_blocking(true);
    std::string outgoing;
    std::size_t sent = 0;
    std::string incoming;
    char chunk[4096];
    for (auto _ : state) {
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            const std::uint32_t size = body_size;
            outgoing.append(reinterpret_cast<const char*>(&size), sizeof(size));
            outgoing.append(body, size);
        }
        std::int64_t received = 0;
        while (received < state.range(0)) {
            boost::system::error_code error;
            if (sent < outgoing.size()) {
                sent += near.write_some(
                    boost::asio::buffer(outgoing.data() + sent, outgoing.size() - sent), error);
            }
            incoming.append(chunk, far.read_some(boost::asio::buffer(chunk), error));
            std::size_t taken = 0;
            while (incoming.size() - taken >= sizeof(std::uint32_t)) {
                std::uint32_t size = 0;
                std::memcpy(&size, incoming.data() + taken, sizeof(size));
                if (incoming.size() - taken < sizeof(size) + size) {
                    break;
                }
                const std::unique_ptr<char[]> message(new char[size + 1]);
                std::memcpy(message.get(), incoming.data() + taken + sizeof(size), size);
                benchmark::DoNotOptimize(message[0]);
                taken += sizeof(size) + size;
                ++received;
            }
            incoming.erase(0, taken);
        }
        outgoing.clear();
        sent = 0;
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
#endif

// Times `step`, run after `prepare`, which is not timed.
template <typename prepare_type, typename step_type>
void time_steps(benchmark::State& state, prepare_type prepare, step_type step) {
    for (auto _ : state) {
        prepare();
        const auto start = std::chrono::steady_clock::now();
        step();
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
    }
}

constexpr int messages_per_step = 100;

// Takes messages while state.range(0) of them stay buffered behind.
void take_message(benchmark::State& state) {
    stream_pair streams;
    const auto buffer_messages = [&streams](std::int64_t count) {
        const std::size_t wanted = streams.far.inUsed + static_cast<std::size_t>(count) * 16;
        for (std::int64_t i = 0; i < count; ++i) {
            streams.near.AddMessage("m", body);
        }
        while (streams.far.inUsed < wanted) {
            streams.near.Write();
            streams.far.Read();
        }
    };
    buffer_messages(state.range(0));
    time_steps(
        state, [&] { buffer_messages(messages_per_step); },
        [&] {
            for (int i = 0; i < messages_per_step; ++i) {
                destroyEncodedMessage(streams.far.GetNextMessage());
            }
        });
    state.SetItemsProcessed(state.iterations() * messages_per_step);
}

// Queues messages while state.range(0) of them are pending before.
void queue_message(benchmark::State& state) {
    stream_pair streams;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        streams.near.AddMessage("m", body);
    }
    const unsigned int pending = streams.near.outUsed;
    time_steps(
        state,
        // Nothing is sent: the last messages are forgotten, so that as many are pending again.
        [&] { streams.near.outUsed = pending; },
        [&] {
            for (int i = 0; i < messages_per_step; ++i) {
                streams.near.AddMessage("m", body);
            }
        });
    state.SetItemsProcessed(state.iterations() * messages_per_step);
}

// Lines like those of a log: compressible to about a third.
std::string text_of(std::int64_t size) {
    std::mt19937 random(1);
    const std::string_view words[] = {"connection", " from ",  "127.0.0.1:", " closed", "\n",
                                      "job ",       "started", " after ",    " ms",     "status "};
    std::string text;
    while (text.size() < static_cast<std::size_t>(size)) {
        text += words[random() % std::size(words)];
        if (random() % 3 == 0) {
            text += std::to_string(random() % 10'000);
        }
    }
    text.resize(static_cast<std::size_t>(size));
    return text;
}

void encode_library(benchmark::State& state) {
    const std::string text = text_of(state.range(0));
    for (auto _ : state) {
        char* frame = nullptr;
        unsigned long payload_length = 0;
        encodeMessage("m", text.c_str(), &frame, &payload_length, nullptr);
        benchmark::DoNotOptimize(frame[payload_length]);
        destroyEncodedMessage(frame);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void encode_reused_zlib(benchmark::State& state) {
    const std::string text = text_of(state.range(0));
    z_stream stream{};
    deflateInit(&stream, Z_DEFAULT_COMPRESSION);
    std::string compressed(deflateBound(&stream, text.size()), '\0');
    for (auto _ : state) {
        deflateReset(&stream);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        stream.avail_in = static_cast<uInt>(text.size());
        stream.next_out = reinterpret_cast<Bytef*>(compressed.data());
        stream.avail_out = static_cast<uInt>(compressed.size());
        benchmark::DoNotOptimize(deflate(&stream, Z_FINISH));
    }
    deflateEnd(&stream);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void batches(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1)->Arg(1000)->UseRealTime()->MeasureProcessCPUTime();
}

void text_sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(100)->Arg(1000)->Arg(10'000)->Arg(100'000);
}

} // namespace

BENCHMARK(exchange_library)->Name("exchange/kiv")->Apply(batches);
BENCHMARK(exchange_library_with_queue)->Name("exchange_kqueue/kiv")->Apply(batches);
#if defined(KIV_HAVE_ZMQ)
BENCHMARK(exchange_zeromq)->Name("exchange/zeromq")->Apply(batches);
#endif
#if defined(KIV_HAVE_NNG)
BENCHMARK(exchange_nng)->Name("exchange/nng")->Apply(batches);
#endif
#if defined(KIV_HAVE_BOOST)
BENCHMARK(exchange_asio)->Name("exchange/asio")->Apply(batches);
#endif
BENCHMARK(take_message)->Name("take/kiv")->Arg(100)->Arg(100'000)->UseManualTime();
BENCHMARK(queue_message)->Name("queue/kiv")->Arg(0)->Arg(100)->Arg(100'000)->UseManualTime();
BENCHMARK(encode_library)->Name("encode/kiv")->Apply(text_sizes);
BENCHMARK(encode_reused_zlib)->Name("encode/zlib")->Apply(text_sizes);

BENCHMARK_MAIN();
