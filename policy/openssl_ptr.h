#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <memory>

namespace qxppolicy {

template <auto Free>
struct OpensslFree {
    template <typename T>
    void operator()(T* object) const {
        static_cast<void>(Free(object));
    }
};

using BioPtr = std::unique_ptr<BIO, OpensslFree<BIO_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpensslFree<BN_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, OpensslFree<EVP_PKEY_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, OpensslFree<EVP_PKEY_CTX_free>>;
using ParamBuilderPtr = std::unique_ptr<OSSL_PARAM_BLD, OpensslFree<OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, OpensslFree<OSSL_PARAM_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, OpensslFree<EVP_MD_CTX_free>>;

}  // namespace qxppolicy
