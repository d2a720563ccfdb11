// Throughput of MD5 and triple-DES-CBC on 1 MiB, ours against OpenSSL's.
#include "des.h"
#include "md5.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstring>
#include <vector>

namespace {

constexpr size_t kSize = 1024 * 1024;
const unsigned char kKey[24] = {1,   35, 69, 103, 137, 171, 205, 239, 254, 220, 186, 152,
                                118, 84, 50, 16,  137, 171, 205, 239, 1,   35,  69,  103};
const unsigned char kIv[8] = {18, 52, 86, 120, 144, 171, 205, 239};

std::vector<unsigned char> Data() {
    std::vector<unsigned char> data(kSize);
    for (size_t i = 0; i < kSize; ++i)
        data[i] = static_cast<unsigned char>(i * 2654435761u >> 13);
    return data;
}

void Md5Ravel(benchmark::State& state) {
    const auto data = Data();
    unsigned char digest[16];
    for (auto _ : state) {
        md5_context ctx;
        md5_starts(&ctx);
        md5_update(&ctx, data.data(), static_cast<unsigned int>(data.size()));
        md5_finish(&ctx, digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSize);
}

void Md5OpenSsl(benchmark::State& state) {
    const auto data = Data();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    for (auto _ : state) {
        EVP_Digest(data.data(), data.size(), digest, &n, EVP_md5(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSize);
}

// Enciphering: the figure the sealed files depend on.
void Des3Ravel(benchmark::State& state) {
    auto data = Data();
    DES3_CBC_CTX ctx;
    DES3_CBCInit(&ctx, kKey, kIv, 1);
    for (auto _ : state) {
        DES3_CBCUpdate(&ctx, data.data(), data.data(), static_cast<unsigned int>(data.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSize);
}

void Des3OpenSsl(benchmark::State& state) {
    auto data = Data();
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_des_ede3_cbc(), nullptr, kKey, kIv, 1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    int n = 0;
    for (auto _ : state) {
        EVP_CipherUpdate(ctx, data.data(), &n, data.data(), int(data.size()));
        benchmark::ClobberMemory();
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(int64_t(state.iterations()) * kSize);
}

} // namespace

BENCHMARK(Md5Ravel)->Name("md5-1MiB/ravel");
BENCHMARK(Md5OpenSsl)->Name("md5-1MiB/openssl");
BENCHMARK(Des3Ravel)->Name("des3-cbc-1MiB/ravel");
BENCHMARK(Des3OpenSsl)->Name("des3-cbc-1MiB/openssl");
