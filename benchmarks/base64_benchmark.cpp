// Base64 beside OpenSSL, GLib, APR, libb64, Boost, POCO and, as the limit of what memory gives, a
// plain copy. Each encodes or decodes the same data, of as many bytes as its argument says, between
// buffers that are used again and again. bytes_per_second counts the data, not the text: the input
// of an encoding, the output of a decoding.
//
// Where a peer has a form that works on the caller's buffers, that form is measured; POCO has only
// streams, which are put over them. No peer breaks its lines.

#include "KivFramework/KivBase64.h"

#include "benchmarks/run_benchmarks.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include <benchmark/benchmark.h>
#ifdef KIV_HAVE_APR
#include <apr_base64.h>
#endif
#ifdef KIV_HAVE_BOOST
#include <boost/beast/core/detail/base64.hpp>
#endif
#ifdef KIV_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KIV_HAVE_LIBB64
extern "C" {
#include <b64/cdecode.h>
#include <b64/cencode.h>
}
#endif
#ifdef KIV_HAVE_OPENSSL
#include <openssl/evp.h>
#endif
#ifdef KIV_HAVE_POCO
#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/MemoryStream.h>
#endif

namespace {

std::string sample(std::size_t size) {
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

std::string encoded(const std::string& data) {
    std::string text((data.size() + 2) / 3 * 4, '\0');
    KivFramework::KivBase64::Encode(data.data(), data.size(), text.data(), text.size());
    return text;
}

#if defined(KIV_HAVE_OPENSSL)
unsigned char* bytes_of(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
#endif

struct kiv {
    static void encode(const std::string& data, std::string& out) {
        KivFramework::KivBase64::Encode(data.data(), data.size(), out.data(), out.size());
    }
    static bool decode(const std::string& text, std::string& out) {
        unsigned long size = out.size();
        return KivFramework::KivBase64::Decode(text.data(), text.size(), out.data(), &size);
    }
};

struct copy {
    static void encode(const std::string& data, std::string& out) {
        std::memcpy(out.data(), data.data(), data.size());
    }
    static bool decode(const std::string& text, std::string& out) {
        std::memcpy(out.data(), text.data(), text.size() / 4 * 3);
        return true;
    }
};

#ifdef KIV_HAVE_OPENSSL
struct openssl {
    static void encode(const std::string& data, std::string& out) {
        EVP_EncodeBlock(bytes_of(out), bytes_of(data), static_cast<int>(data.size()));
    }
    static bool decode(const std::string& text, std::string& out) {
        return EVP_DecodeBlock(bytes_of(out), bytes_of(text), static_cast<int>(text.size())) > 0;
    }
};
#endif

#ifdef KIV_HAVE_GLIB
struct glib {
    static void encode(const std::string& data, std::string& out) {
        gint state = 0;
        gint save = 0;
        const gsize length = g_base64_encode_step(reinterpret_cast<const guchar*>(data.data()),
                                                  data.size(), FALSE, out.data(), &state, &save);
        g_base64_encode_close(FALSE, out.data() + length, &state, &save);
    }
    static bool decode(const std::string& text, std::string& out) {
        gint state = 0;
        guint save = 0;
        return g_base64_decode_step(text.data(), text.size(), reinterpret_cast<guchar*>(out.data()),
                                    &state, &save) > 0;
    }
};
#endif

#ifdef KIV_HAVE_APR
struct apr {
    static void encode(const std::string& data, std::string& out) {
        apr_base64_encode_binary(out.data(), reinterpret_cast<const unsigned char*>(data.data()),
                                 static_cast<int>(data.size()));
    }
    static bool decode(const std::string& text, std::string& out) {
        return apr_base64_decode_binary(reinterpret_cast<unsigned char*>(out.data()), text.data()) >
               0;
    }
};
#endif

#ifdef KIV_HAVE_LIBB64
struct libb64 {
    static void encode(const std::string& data, std::string& out) {
        base64_encodestate state;
        base64_init_encodestate(&state);
        const int length =
            base64_encode_block(data.data(), static_cast<int>(data.size()), out.data(), &state);
        base64_encode_blockend(out.data() + length, &state);
    }
    static bool decode(const std::string& text, std::string& out) {
        base64_decodestate state;
        base64_init_decodestate(&state);
        return base64_decode_block(text.data(), static_cast<int>(text.size()), out.data(), &state) >
               0;
    }
};
#endif

#ifdef KIV_HAVE_BOOST
struct boost_beast {
    static void encode(const std::string& data, std::string& out) {
        boost::beast::detail::base64::encode(out.data(), data.data(), data.size());
    }
    static bool decode(const std::string& text, std::string& out) {
        return boost::beast::detail::base64::decode(out.data(), text.data(), text.size()).first > 0;
    }
};
#endif

#ifdef KIV_HAVE_POCO
struct poco {
    static void encode(const std::string& data, std::string& out) {
        Poco::MemoryOutputStream stream(out.data(), static_cast<std::streamsize>(out.size()));
        Poco::Base64Encoder encoder(stream);
        encoder.rdbuf()->setLineLength(0);
        encoder.write(data.data(), static_cast<std::streamsize>(data.size()));
        encoder.close();
    }
    static bool decode(const std::string& text, std::string& out) {
        Poco::MemoryInputStream stream(text.data(), static_cast<std::streamsize>(text.size()));
        Poco::Base64Decoder decoder(stream);
        decoder.read(out.data(), static_cast<std::streamsize>(out.size()));
        return decoder.gcount() > 0;
    }
};
#endif

void count_bytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Room for the text with the line breaks that some peers write.
std::string text_buffer(const std::string& data) {
    return std::string(data.size() * 2 + 64, '\0');
}

template <typename codec>
void encode(benchmark::State& state) {
    const std::string data = sample(static_cast<std::size_t>(state.range(0)));
    std::string out = text_buffer(data);
    for (auto _ : state) {
        codec::encode(data, out);
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

template <typename codec>
void decode(benchmark::State& state) {
    const std::string data = sample(static_cast<std::size_t>(state.range(0)));
    const std::string text = encoded(data);
    std::string out = text_buffer(data);
    for (auto _ : state) {
        if (!codec::decode(text, out)) {
            state.SkipWithError("the text is refused");
        }
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

void for_each_size(benchmark::internal::Benchmark* made) {
    for (const long size : {64L, 1024L, 65536L, 1048576L}) {
        made->Arg(size);
    }
}

template <typename codec>
void measure(const std::string& who) {
    benchmark::RegisterBenchmark(("encode/" + who).c_str(), encode<codec>)->Apply(for_each_size);
    benchmark::RegisterBenchmark(("decode/" + who).c_str(), decode<codec>)->Apply(for_each_size);
}

} // namespace

int main(int argc, char** argv) {
    measure<copy>("memcpy");
    measure<kiv>("kiv");
#ifdef KIV_HAVE_OPENSSL
    measure<openssl>("openssl");
#endif
#ifdef KIV_HAVE_GLIB
    measure<glib>("glib");
#endif
#ifdef KIV_HAVE_APR
    measure<apr>("apr");
#endif
#ifdef KIV_HAVE_LIBB64
    measure<libb64>("libb64");
#endif
#ifdef KIV_HAVE_BOOST
    measure<boost_beast>("boost");
#endif
#ifdef KIV_HAVE_POCO
    measure<poco>("poco");
#endif
    return run_benchmarks(argc, argv);
}
