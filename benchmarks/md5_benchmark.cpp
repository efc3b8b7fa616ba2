// MD5 beside OpenSSL, GLib, APR, Boost and POCO: a whole digest, from its start to its 16 bytes, of
// as many bytes as the argument says. What a peer can use again, its context, is made once.

#include "KivFramework/KivMd5.h"

#include <cstddef>
#include <memory>
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

// What digests data and keeps the digest.
struct kiv_digester {
    const void* digest(const std::vector<unsigned char>& data) {
        using namespace KivFramework::KivMd5;
        md5_state_s state;
        md5_init(&state);
        md5_append(&state, data.data(), static_cast<int>(data.size()));
        md5_finish(&state, bytes);
        return bytes;
    }

    unsigned char bytes[16];
};

#ifdef KIV_HAVE_OPENSSL
class openssl_digester {
public:
    const void* digest(const std::vector<unsigned char>& data) {
        EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr);
        EVP_DigestUpdate(context_.get(), data.data(), data.size());
        EVP_DigestFinal_ex(context_.get(), bytes_, nullptr);
        return bytes_;
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_{EVP_MD_CTX_new(),
                                                                     &EVP_MD_CTX_free};
    unsigned char bytes_[16];
};
#endif

#ifdef KIV_HAVE_GLIB
class glib_digester {
public:
    const void* digest(const std::vector<unsigned char>& data) {
        gsize size = sizeof(bytes_);
        g_checksum_reset(context_.get());
        g_checksum_update(context_.get(), data.data(), static_cast<gssize>(data.size()));
        g_checksum_get_digest(context_.get(), bytes_, &size);
        return bytes_;
    }

private:
    std::unique_ptr<GChecksum, decltype(&g_checksum_free)> context_{g_checksum_new(G_CHECKSUM_MD5),
                                                                    &g_checksum_free};
    unsigned char bytes_[16];
};
#endif

#ifdef KIV_HAVE_APR
struct apr_digester {
    const void* digest(const std::vector<unsigned char>& data) {
        apr_md5_ctx_t context;
        apr_md5_init(&context);
        apr_md5_update(&context, data.data(), data.size());
        apr_md5_final(bytes, &context);
        return bytes;
    }

    unsigned char bytes[16];
};
#endif

#ifdef KIV_HAVE_BOOST
struct boost_digester {
    const void* digest(const std::vector<unsigned char>& data) {
        boost::uuids::detail::md5 state;
        state.process_bytes(data.data(), data.size());
        state.get_digest(words);
        return words;
    }

    boost::uuids::detail::md5::digest_type words;
};
#endif

#ifdef KIV_HAVE_POCO
class poco_digester {
public:
    const void* digest(const std::vector<unsigned char>& data) {
        engine_.update(data.data(), data.size());
        return engine_.digest().data(); // after which it starts again
    }

private:
    Poco::MD5Engine engine_;
};
#endif

template <typename digester>
void digest(benchmark::State& state) {
    const std::vector<unsigned char> data = sample(state);
    digester made;
    for (auto _ : state) {
        benchmark::DoNotOptimize(made.digest(data));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void for_each_size(benchmark::internal::Benchmark* made) {
    for (const long size : {64L, 1024L, 65536L, 1048576L}) {
        made->Arg(size);
    }
}

} // namespace

BENCHMARK_TEMPLATE(digest, kiv_digester)->Name("digest/kiv")->Apply(for_each_size);
#ifdef KIV_HAVE_OPENSSL
BENCHMARK_TEMPLATE(digest, openssl_digester)->Name("digest/openssl")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_GLIB
BENCHMARK_TEMPLATE(digest, glib_digester)->Name("digest/glib")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_APR
BENCHMARK_TEMPLATE(digest, apr_digester)->Name("digest/apr")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_BOOST
BENCHMARK_TEMPLATE(digest, boost_digester)->Name("digest/boost")->Apply(for_each_size);
#endif
#ifdef KIV_HAVE_POCO
BENCHMARK_TEMPLATE(digest, poco_digester)->Name("digest/poco")->Apply(for_each_size);
#endif

BENCHMARK_MAIN();
