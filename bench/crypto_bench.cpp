// RC4 over 64 MiB: the library's own against libcrypto's (the legacy provider), in the same
// run. Where the legacy provider does not load, the library's figure stands alone.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstddef>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/crypto/CryptRC4V2.h"
#include "tessel/platform/Rc4.h"

namespace {

constexpr std::size_t kSize = std::size_t{64} << 20;
const unsigned char kKey[16] = {1, 2, 3, 4, 5};

std::vector<unsigned char>& data() {
    static std::vector<unsigned char> bytes(kSize, 0x5A);
    return bytes;
}

void Report(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

void Rc4Platform(benchmark::State& state) {
    Tessel::Platform::Rc4 cipher;
    cipher.SetKey(kKey, sizeof kKey);
    for (auto _ : state) {
        cipher.Apply(data().data(), kSize);
        benchmark::DoNotOptimize(data().data());
    }
    Report(state);
}
BENCHMARK(Rc4Platform)->Unit(benchmark::kMillisecond);

// The registry functions' cipher over the same bytes in one call.
void Rc4CryptRC4V2(benchmark::State& state) {
    CCryptRC4V2 cipher;
    for (auto _ : state) {
        cipher.EncryptDataV2(kKey, sizeof kKey, data().data(), kSize);
        benchmark::DoNotOptimize(data().data());
    }
    Report(state);
}
BENCHMARK(Rc4CryptRC4V2)->Unit(benchmark::kMillisecond);

void Baseline_OpenSslRc4(benchmark::State& state) {
    static OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    static OSSL_PROVIDER* fallback = OSSL_PROVIDER_load(nullptr, "default");
    EVP_CIPHER* rc4 = legacy != nullptr && fallback != nullptr
                          ? EVP_CIPHER_fetch(nullptr, "RC4", nullptr)
                          : nullptr;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    if (rc4 == nullptr || context == nullptr ||
        EVP_EncryptInit_ex2(context, rc4, kKey, nullptr, nullptr) != 1) {
        state.SkipWithError("libcrypto's legacy provider with RC4 does not load");
    } else {
        for (auto _ : state) {
            int written = 0;
            EVP_EncryptUpdate(context, data().data(), &written, data().data(),
                              static_cast<int>(kSize));
            benchmark::DoNotOptimize(data().data());
        }
        Report(state);
    }
    EVP_CIPHER_CTX_free(context);
    EVP_CIPHER_free(rc4);
}
BENCHMARK(Baseline_OpenSslRc4)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Time ratios: 1.25 is 0.8 times the baseline's throughput.
    return TesselBench::RunWithRatios(argc, argv,
                                      {{"Rc4Platform", "Baseline_OpenSslRc4", 1.25},
                                       {"Rc4CryptRC4V2", "Baseline_OpenSslRc4", 1.25}});
}
