#include "tessel/platform/CryptoApi.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tessel/platform/LastError.h"
#include "tessel/platform/Rc4.h"

namespace Tessel::Platform {
namespace {

constexpr std::size_t kMd5Size = 16;
constexpr std::size_t kRc4KeySize = 16;
// The base provider's RC4 keys carry 40 bits of secret; the rest of the 16 bytes is zero.
constexpr std::size_t kRc4SecretSize = 5;

struct Container {
    bool signature = false;
    bool exchange = false;
};

struct Provider {
    std::string container;  // key of the container; empty for a verify context
    EVP_MD* md5 = nullptr;

    ~Provider() { EVP_MD_free(md5); }
};

struct Hash {
    HCRYPTPROV owner = 0;
    EVP_MD_CTX* context = nullptr;
    bool finished = false;
    unsigned char value[kMd5Size] = {};

    ~Hash() { EVP_MD_CTX_free(context); }
};

struct Key {
    HCRYPTPROV owner = 0;
    bool cipher = false;  // an RC4 key; false for a container's key pair
    Rc4 start;            // the keyed state, to start the stream afresh after a final call
    Rc4 stream;
};

struct Tables {
    std::mutex mutex;
    std::uintptr_t next = 1;
    std::map<std::string, Container> containers;
    std::map<HCRYPTPROV, std::shared_ptr<Provider>> providers;
    std::map<HCRYPTHASH, std::shared_ptr<Hash>> hashes;
    std::map<HCRYPTKEY, std::shared_ptr<Key>> keys;
};

Tables& tables() {
    static Tables instance;
    return instance;
}

BOOL fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

std::string effectiveUserName() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr) {
        return found->pw_name;
    }
    return "uid" + std::to_string(geteuid());
}

std::string containerKey(const char* name, DWORD flags) {
    std::string key = (flags & CRYPT_MACHINE_KEYSET) != 0 ? "machine\\" : "user\\";
    key += name != nullptr && name[0] != '\0' ? std::string(name) : effectiveUserName();
    for (char& c : key) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return key;
}

bool validKeyFlags(DWORD flags) {
    const DWORD bits = flags >> 16;
    return (bits == 0 || bits == 40) &&
           (flags & 0xFFFFu & ~(CRYPT_EXPORTABLE | CRYPT_NO_SALT)) == 0;
}

template <typename Object>
std::shared_ptr<Object> find(const std::map<std::uintptr_t, std::shared_ptr<Object>>& table,
                             std::uintptr_t handle) {
    const auto it = table.find(handle);
    return it == table.end() ? nullptr : it->second;
}

HCRYPTKEY addKey(Tables& t, std::shared_ptr<Key> key) {
    const HCRYPTKEY handle = t.next++;
    t.keys.emplace(handle, std::move(key));
    return handle;
}

std::shared_ptr<Key> rc4Key(HCRYPTPROV owner, const unsigned char* secret) {
    unsigned char material[kRc4KeySize] = {};
    std::memcpy(material, secret, kRc4SecretSize);
    auto key = std::make_shared<Key>();
    key->owner = owner;
    key->cipher = true;
    key->start.SetKey(material, sizeof material);
    key->stream = key->start;
    return key;
}

// Feeds plain bytes to the hash that goes with a ciphering call, if any.
bool feedHash(HCRYPTHASH handle, const BYTE* data, DWORD length) {
    return handle == 0 || CryptHashData(handle, data, length, 0) != FALSE;
}

// Ciphers length bytes of data with the RC4 key handle; the hash, if any, gets the plain
// bytes: before ciphering when encrypting, after it when decrypting.
BOOL cipher(HCRYPTKEY handle, HCRYPTHASH hash, bool encrypt, BOOL final, DWORD flags, BYTE* data,
            DWORD length) {
    std::shared_ptr<Key> key;
    {
        Tables& t = tables();
        const std::lock_guard lock(t.mutex);
        key = find(t.keys, handle);
    }
    if (key == nullptr || !key->cipher) {
        return fail(NTE_BAD_KEY);
    }
    if (flags != 0) {
        return fail(NTE_BAD_FLAGS);
    }
    if (encrypt && !feedHash(hash, data, length)) {
        return FALSE;
    }
    key->stream.Apply(data, length);
    if (final) {
        key->stream = key->start;
    }
    return encrypt || feedHash(hash, data, length) ? TRUE : FALSE;
}

}  // namespace

BOOL CryptAcquireContextA(HCRYPTPROV* provider, const char* container, const char* providerName,
                          DWORD type, DWORD flags) {
    if (provider == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    if (type != PROV_RSA_FULL) {
        return fail(NTE_BAD_PROV_TYPE);
    }
    if (providerName != nullptr && strcasecmp(providerName, MS_DEF_PROV_A) != 0) {
        return fail(NTE_KEYSET_NOT_DEF);
    }
    const DWORD verify = flags & CRYPT_VERIFYCONTEXT;
    const DWORD rest = flags & ~(CRYPT_VERIFYCONTEXT | CRYPT_MACHINE_KEYSET | CRYPT_SILENT);
    if ((verify != 0 && verify != CRYPT_VERIFYCONTEXT) ||
        (rest != 0 && rest != CRYPT_NEWKEYSET && rest != CRYPT_DELETEKEYSET) ||
        (verify != 0 && rest != 0)) {
        return fail(NTE_BAD_FLAGS);
    }
    auto opened = std::make_shared<Provider>();
    opened->md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    if (opened->md5 == nullptr) {
        return fail(NTE_PROVIDER_DLL_FAIL);
    }

    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    if (verify == 0) {
        const std::string key = containerKey(container, flags);
        const bool exists = t.containers.count(key) != 0;
        if (rest == CRYPT_DELETEKEYSET) {
            if (!exists) {
                return fail(NTE_BAD_KEYSET);
            }
            t.containers.erase(key);
            *provider = 0;
            return TRUE;
        }
        if (rest == CRYPT_NEWKEYSET && exists) {
            return fail(NTE_EXISTS);
        }
        if (rest != CRYPT_NEWKEYSET && !exists) {
            return fail(NTE_BAD_KEYSET);
        }
        t.containers[key];
        opened->container = key;
    }
    *provider = t.next++;
    t.providers.emplace(*provider, std::move(opened));
    return TRUE;
}

BOOL CryptReleaseContext(HCRYPTPROV provider, DWORD flags) {
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    if (t.providers.count(provider) == 0) {
        return fail(NTE_BAD_UID);
    }
    if (flags != 0) {
        return fail(NTE_BAD_FLAGS);
    }
    t.providers.erase(provider);
    std::erase_if(t.hashes,
                  [provider](const auto& entry) { return entry.second->owner == provider; });
    std::erase_if(t.keys,
                  [provider](const auto& entry) { return entry.second->owner == provider; });
    return TRUE;
}

BOOL CryptCreateHash(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY key, DWORD flags,
                     HCRYPTHASH* hash) {
    if (hash == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    const std::shared_ptr<Provider> owner = find(t.providers, provider);
    if (owner == nullptr) {
        return fail(NTE_BAD_UID);
    }
    if (algorithm != CALG_MD5) {
        return fail(NTE_BAD_ALGID);
    }
    if (key != 0) {
        return fail(NTE_BAD_KEY);
    }
    if (flags != 0) {
        return fail(NTE_BAD_FLAGS);
    }
    auto created = std::make_shared<Hash>();
    created->owner = provider;
    created->context = EVP_MD_CTX_new();
    if (created->context == nullptr ||
        EVP_DigestInit_ex2(created->context, owner->md5, nullptr) != 1) {
        return fail(NTE_PROVIDER_DLL_FAIL);
    }
    *hash = t.next++;
    t.hashes.emplace(*hash, std::move(created));
    return TRUE;
}

BOOL CryptHashData(HCRYPTHASH hash, const BYTE* data, DWORD length, DWORD flags) {
    std::shared_ptr<Hash> target;
    {
        Tables& t = tables();
        const std::lock_guard lock(t.mutex);
        target = find(t.hashes, hash);
    }
    if (target == nullptr) {
        return fail(NTE_BAD_HASH);
    }
    if (flags != 0) {
        return fail(NTE_BAD_FLAGS);
    }
    if (data == nullptr && length != 0) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    if (target->finished) {
        return fail(NTE_BAD_HASH_STATE);
    }
    if (length != 0 && EVP_DigestUpdate(target->context, data, length) != 1) {
        return fail(NTE_PROVIDER_DLL_FAIL);
    }
    return TRUE;
}

BOOL CryptDestroyHash(HCRYPTHASH hash) {
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    return t.hashes.erase(hash) != 0 ? TRUE : fail(NTE_BAD_HASH);
}

BOOL CryptDeriveKey(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTHASH hash, DWORD flags,
                    HCRYPTKEY* key) {
    if (key == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    if (find(t.providers, provider) == nullptr) {
        return fail(NTE_BAD_UID);
    }
    const std::shared_ptr<Hash> source = find(t.hashes, hash);
    if (source == nullptr) {
        return fail(NTE_BAD_HASH);
    }
    if (algorithm != CALG_RC4) {
        return fail(NTE_BAD_ALGID);
    }
    if (!validKeyFlags(flags)) {
        return fail(NTE_BAD_FLAGS);
    }
    if (!source->finished) {
        unsigned int size = 0;
        if (EVP_DigestFinal_ex(source->context, source->value, &size) != 1 || size != kMd5Size) {
            return fail(NTE_PROVIDER_DLL_FAIL);
        }
        source->finished = true;
    }
    *key = addKey(t, rc4Key(provider, source->value));
    return TRUE;
}

BOOL CryptGenKey(HCRYPTPROV provider, ALG_ID algorithm, DWORD flags, HCRYPTKEY* key) {
    if (key == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    const std::shared_ptr<Provider> owner = find(t.providers, provider);
    if (owner == nullptr) {
        return fail(NTE_BAD_UID);
    }
    if (!validKeyFlags(flags)) {
        return fail(NTE_BAD_FLAGS);
    }
    if (algorithm == CALG_RC4) {
        unsigned char secret[kRc4SecretSize];
        if (RAND_bytes(secret, sizeof secret) != 1) {
            return fail(NTE_PROVIDER_DLL_FAIL);
        }
        *key = addKey(t, rc4Key(provider, secret));
        return TRUE;
    }
    if (algorithm != AT_SIGNATURE && algorithm != AT_KEYEXCHANGE) {
        return fail(NTE_BAD_ALGID);
    }
    const auto container = t.containers.find(owner->container);
    if (owner->container.empty() || container == t.containers.end()) {
        return fail(NTE_BAD_KEYSET);
    }
    (algorithm == AT_SIGNATURE ? container->second.signature : container->second.exchange) = true;
    auto pair = std::make_shared<Key>();
    pair->owner = provider;
    *key = addKey(t, std::move(pair));
    return TRUE;
}

BOOL CryptGetUserKey(HCRYPTPROV provider, DWORD keySpec, HCRYPTKEY* key) {
    if (key == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    const std::shared_ptr<Provider> owner = find(t.providers, provider);
    if (owner == nullptr) {
        return fail(NTE_BAD_UID);
    }
    if (keySpec != AT_SIGNATURE && keySpec != AT_KEYEXCHANGE) {
        return fail(NTE_BAD_KEY);
    }
    const auto container = t.containers.find(owner->container);
    if (container == t.containers.end() ||
        !(keySpec == AT_SIGNATURE ? container->second.signature : container->second.exchange)) {
        return fail(NTE_NO_KEY);
    }
    auto pair = std::make_shared<Key>();
    pair->owner = provider;
    *key = addKey(t, std::move(pair));
    return TRUE;
}

BOOL CryptDestroyKey(HCRYPTKEY key) {
    Tables& t = tables();
    const std::lock_guard lock(t.mutex);
    return t.keys.erase(key) != 0 ? TRUE : fail(NTE_BAD_KEY);
}

BOOL CryptEncrypt(HCRYPTKEY key, HCRYPTHASH hash, BOOL final, DWORD flags, BYTE* data,
                  DWORD* length, DWORD bufferLength) {
    if (length == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    if (data == nullptr) {
        return TRUE;
    }
    if (*length > bufferLength) {
        return fail(ERROR_MORE_DATA);
    }
    return cipher(key, hash, true, final, flags, data, *length);
}

BOOL CryptDecrypt(HCRYPTKEY key, HCRYPTHASH hash, BOOL final, DWORD flags, BYTE* data,
                  DWORD* length) {
    if (length == nullptr || data == nullptr) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    return cipher(key, hash, false, final, flags, data, *length);
}

}  // namespace Tessel::Platform
