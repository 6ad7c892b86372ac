#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <memory>

namespace qxppolicy {

template <auto Free>
struct OpensslFree {
    template <typename T>
    void operator()(T* object) const {
        static_cast<void>(Free(object));
    }
};

inline void FreeText(char* text) {
    OPENSSL_free(text);
}

using BioPtr = std::unique_ptr<BIO, OpensslFree<BIO_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpensslFree<BN_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, OpensslFree<EVP_PKEY_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, OpensslFree<EVP_PKEY_CTX_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, OpensslFree<EVP_MD_CTX_free>>;
using TextPtr = std::unique_ptr<char, OpensslFree<FreeText>>;

}  // namespace qxppolicy
