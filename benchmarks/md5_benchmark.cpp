// MD5 beside OpenSSL, GLib, APR, Boost and POCO: a whole digest, from its start to its 16 bytes, of
// as many bytes as the argument says. What a peer can use again, its context, is made once.

#include "KivFramework/KivMd5.h"

#include <vector>

#include <benchmark/benchmark.h>
#ifdef KIV_HAVE_APR
#include <apr_md5.h>
#endif
#ifdef KIV_HAVE_BOOST
#include <boost/uuid/detail/md5.hpp>
#endif
#ifdef KIV_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KIV_HAVE_OPENSSL
#include <openssl/evp.h>
#endif
#ifdef KIV_HAVE_POCO
#include <Poco/MD5Engine.h>
#endif

namespace {

std::vector<unsigned char> sample(benchmark::State& state) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7);
    }
    return bytes;
}

void count_bytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void kiv_digest(benchmark::State& state) {
    using namespace KivFramework::KivMd5;
    const std::vector<unsigned char> data = sample(state);
    unsigned char digest[16];
    for (auto _ : state) {
        md5_state_s digesting;
        md5_init(&digesting);
        md5_append(&digesting, data.data(), static_cast<int>(data.size()));
        md5_finish(&digesting, digest);
        benchmark::DoNotOptimize(digest);
    }
    count_bytes(state);
}

#ifdef KIV_HAVE_OPENSSL
void openssl_digest(benchmark::State& state) {
    const std::vector<unsigned char> data = sample(state);
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    unsigned char digest[16];
    for (auto _ : state) {
        EVP_DigestInit_ex(context, EVP_md5(), nullptr);
        EVP_DigestUpdate(context, data.data(), data.size());
        EVP_DigestFinal_ex(context, digest, nullptr);
        benchmark::DoNotOptimize(digest);
    }
    EVP_MD_CTX_free(context);
    count_bytes(state);
}
#endif

#ifdef KIV_HAVE_GLIB
void glib_digest(benchmark::State& state) {
    const std::vector<unsigned char> data = sample(state);
    GChecksum* const context = g_checksum_new(G_CHECKSUM_MD5);
    unsigned char digest[16];
    for (auto _ : state) {
        gsize size = sizeof(digest);
        g_checksum_reset(context);
        g_checksum_update(context, data.data(), static_cast<gssize>(data.size()));
        g_checksum_get_digest(context, digest, &size);
        benchmark::DoNotOptimize(digest);
    }
    g_checksum_free(context);
    count_bytes(state);
}
#endif

#ifdef KIV_HAVE_APR
void apr_digest(benchmark::State& state) {
    const std::vector<unsigned char> data = sample(state);
    unsigned char digest[16];
    for (auto _ : state) {
        apr_md5_ctx_t context;
        apr_md5_init(&context);
        apr_md5_update(&context, data.data(), data.size());
        apr_md5_final(digest, &context);
        benchmark::DoNotOptimize(digest);
    }
    count_bytes(state);
}
#endif

#ifdef KIV_HAVE_BOOST
void boost_digest(benchmark::State& state) {
    const std::vector<unsigned char> data = sample(state);
    boost::uuids::detail::md5::digest_type digest;
    for (auto _ : state) {
        boost::uuids::detail::md5 digesting;
        digesting.process_bytes(data.data(), data.size());
        digesting.get_digest(digest);
        benchmark::DoNotOptimize(digest);
    }
    count_bytes(state);
}
#endif

#ifdef KIV_HAVE_POCO
void poco_digest(benchmark::State& state) {
    const std::vector<unsigned char> data = sample(state);
    Poco::MD5Engine engine; // giving a digest, it starts again
    for (auto _ : state) {
        engine.update(data.data(), data.size());
        benchmark::DoNotOptimize(engine.digest().data());
    }
    count_bytes(state);
}
#endif

void for_each_size(benchmark::internal::Benchmark* made) {
    for (const long size : {64L, 1024L, 65536L, 1048576L}) {
        made->Arg(size);
    }
}

} // namespace

BENCHMARK(kiv_digest)->Name("digest/kiv")->Apply(for_each_size);
#ifdef KIV_HAVE_OPENSSL
BENCHMARK(openssl_digest)->Name("digest/openssl")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_GLIB
BENCHMARK(glib_digest)->Name("digest/glib")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_APR
BENCHMARK(apr_digest)->Name("digest/apr")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_BOOST
BENCHMARK(boost_digest)->Name("digest/boost")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_POCO
BENCHMARK(poco_digest)->Name("digest/poco")->Apply(for_each_size);
#endif

BENCHMARK_MAIN();
