#include "qxhost/signature.h"

#include <dirent.h>
#include <fnmatch.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>

#include "no_cancel.h"
#include "regular_file.h"
#include "trust_directory.h"

namespace {

constexpr int kValid = 0;
constexpr int kNotValid = -1;

constexpr std::array<unsigned char, 4> kMark = {0x01, 0x20, 0x00, 0x00};  // 0x2001
constexpr size_t kSignatureSize = 64;                                     // RFC 8032 section 5.1.6
constexpr size_t kBlobSize = kMark.size() + kSignatureSize;
constexpr size_t kMaxKeyFileSize = 64UL * 1024;

template <auto Free>
struct CDeleter {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};
using CBio = std::unique_ptr<BIO, CDeleter<BIO_free>>;
using CKey = std::unique_ptr<EVP_PKEY, CDeleter<EVP_PKEY_free>>;
using CDigestContext = std::unique_ptr<EVP_MD_CTX, CDeleter<EVP_MD_CTX_free>>;
using CDirectory = std::unique_ptr<DIR, CDeleter<closedir>>;

using Signature = std::array<unsigned char, kSignatureSize>;
using Data = std::span<const unsigned char>;

/// Leaves the thread's queue of OpenSSL errors as it was found.
class CErrorQueueKeeper {
public:
    CErrorQueueKeeper() { ERR_set_mark(); }
    ~CErrorQueueKeeper() { ERR_pop_to_mark(); }
    CErrorQueueKeeper(const CErrorQueueKeeper&) = delete;
    CErrorQueueKeeper& operator=(const CErrorQueueKeeper&) = delete;
};

std::optional<Signature> ReadSignature(const char* pszSign) {
    constexpr size_t kDigits = 2 * kBlobSize;
    std::array<unsigned char, kBlobSize> aBlob = {};
    size_t uSize = 0;
    if (strnlen(pszSign, kDigits + 1) != kDigits ||
        OPENSSL_hexstr2buf_ex(aBlob.data(), aBlob.size(), &uSize, pszSign, '\0') != 1 || uSize != kBlobSize ||
        !std::equal(kMark.begin(), kMark.end(), aBlob.begin())) {
        return std::nullopt;
    }
    Signature signature = {};
    std::copy(aBlob.begin() + kMark.size(), aBlob.end(), signature.begin());
    return signature;
}

/// A key file that wants a pass phrase is not read: nobody is asked.
int NoPassPhrase(char* /*pBuffer*/, int /*iSize*/, int /*iForWriting*/, void* /*pContext*/) {
    return -1;
}

/// Null when the file holds no Ed25519 public key.
CKey ReadKey(int iDirectory, const char* pszName) {
    const SFileContent file = ReadRegularFile(iDirectory, pszName, kMaxKeyFileSize);
    if (!file.pData) {
        return nullptr;
    }
    const CBio pBio(BIO_new_mem_buf(file.pData.get(), static_cast<int>(file.uSize)));
    CKey pKey(pBio ? PEM_read_bio_PUBKEY(pBio.get(), nullptr, NoPassPhrase, nullptr) : nullptr);
    if (pKey && EVP_PKEY_is_a(pKey.get(), "ED25519") != 1) {
        pKey.reset();
    }
    return pKey;
}

bool Verifies(EVP_PKEY* pKey, const Signature& signature, Data data) {
    const CDigestContext pContext(EVP_MD_CTX_new());
    return pContext && EVP_DigestVerifyInit(pContext.get(), nullptr, nullptr, nullptr, pKey) == 1 &&
           EVP_DigestVerify(pContext.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
}

/// As a shell would match *.pem: a name that begins with a dot, such as a key that is still being written, is not one.
bool IsKeyFileName(const char* pszName) {
    return fnmatch("*.pem", pszName, FNM_PERIOD) == 0;
}

bool AnyTrustedKeyVerifies(const Signature& signature, Data data) {
    const CDirectory pDirectory(opendir(TrustDirectory().c_str()));
    if (!pDirectory) {
        return false;
    }
    // readdir is safe here: no other thread has this stream.
    while (const dirent* pEntry = readdir(pDirectory.get())) {  // NOLINT(concurrency-mt-unsafe)
        if (!IsKeyFileName(pEntry->d_name)) {
            continue;
        }
        const CKey pKey = ReadKey(dirfd(pDirectory.get()), pEntry->d_name);
        if (pKey && Verifies(pKey.get(), signature, data)) {
            return true;
        }
    }
    return false;
}

}  // namespace

int qxchksign_buffer(const char* pszSign, const unsigned char* pData, unsigned int uSize) {
    if (pszSign == nullptr || pData == nullptr) {
        return kNotValid;
    }
    const CNoCancel noCancel;
    const CErrorQueueKeeper errors;
    try {
        const std::optional<Signature> signature = ReadSignature(pszSign);
        return signature && AnyTrustedKeyVerifies(*signature, Data(pData, uSize)) ? kValid : kNotValid;
    } catch (const std::bad_alloc&) {
        return kNotValid;
    }
}
