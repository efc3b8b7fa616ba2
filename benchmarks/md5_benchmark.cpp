// MD5 beside OpenSSL: a whole digest, from its start to its 16 bytes, of as many bytes as the
// argument says.

#include "KivFramework/KivMd5.h"

#include <vector>

#include <benchmark/benchmark.h>
#ifdef KIV_HAVE_OPENSSL
#include <openssl/evp.h>
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
// The context is made once and used again, as its documentation advises.
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

void for_each_size(benchmark::internal::Benchmark* made) {
    for (const long size : {64L, 1024L, 65536L, 1048576L}) {
        made->Arg(size);
    }
}

} // namespace

BENCHMARK(kiv_digest)->Apply(for_each_size);
#ifdef KIV_HAVE_OPENSSL
BENCHMARK(openssl_digest)->Apply(for_each_size);
#endif

BENCHMARK_MAIN();
