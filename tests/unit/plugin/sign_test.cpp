// Script signatures over the key that this build trusts.

#include "plugin/sign/maint_sign.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <set>
#include <thread>

#include "base/encoding.h"
#include "plugin/sign/rsa_public_key.h"
#include "policy/key_file.h"
#include "policy/openssl_ptr.h"

namespace {

constexpr char SCRIPT[] = "ZWNobyBoZWxsbwo=";
constexpr size_t LIMIT = 52428800;

class SignTest : public testing::Test {
protected:
    bool IsValid(const std::string& signature, const std::string& script = SCRIPT) {
        return verifier_.VerifySignContent(signature.c_str(), script.c_str());
    }

    std::string Sign(const std::string& script = SCRIPT) { return qxppolicy::Sign(key_, script); }

    const qxppolicy::Key key_ = qxppolicy::ReadPrivateKey(QXPMAINT_TEST_SIGNING_KEY);
    CMaintSign verifier_;
};

TEST_F(SignTest, OnlyTheSignedBytesAreAccepted) {
    const std::string signature = Sign();
    // Often enough that a message above the modulus would show, and each with a padding of its own.
    std::set<std::string> signatures;
    for (int round = 0; round < 64; ++round) {
        EXPECT_TRUE(IsValid(*signatures.insert(Sign()).first));
    }
    EXPECT_EQ(signatures.size(), 64U);
    for (size_t i = 0; i < sizeof(SCRIPT) - 1; ++i) {
        std::string changed = SCRIPT;
        changed[i] ^= 1;
        EXPECT_FALSE(IsValid(signature, changed)) << "byte " << i;
    }
    EXPECT_FALSE(IsValid(signature, std::string(SCRIPT) + "="));
    EXPECT_FALSE(IsValid(signature, ""));
    for (const size_t digit : {8U, 100U, 263U}) {
        std::string changed = signature;
        changed[digit] = changed[digit] == '0' ? '1' : '0';
        EXPECT_FALSE(IsValid(changed)) << "digit " << digit;
    }
}

TEST_F(SignTest, TheMessageIsCheckedInItsDigestAlone) {
    std::array<unsigned char, 128> digest{};
    ASSERT_EQ(EVP_Digest(SCRIPT, sizeof(SCRIPT) - 1, &digest[1], nullptr, EVP_sha256(), nullptr), 1);
    // The signature of the message with one byte changed; of a message below the modulus, since it begins with 0.
    const auto sign = [&](size_t byte, unsigned char bits) {
        auto message = digest;
        message.at(byte) ^= bits;
        std::array<unsigned char, 128> block{};
        size_t size = block.size();
        const qxppolicy::KeyContextPtr context(EVP_PKEY_CTX_new(key_.key.get(), nullptr));
        EXPECT_EQ(EVP_PKEY_sign_init(context.get()), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING), 1);
        EXPECT_EQ(EVP_PKEY_sign(context.get(), block.data(), &size, message.data(), message.size()), 1);
        return "01100000" + qxpbase::HexEncode(block);
    };
    for (const size_t byte : {1U, 32U, 33U, 127U}) {
        EXPECT_EQ(IsValid(sign(byte, 1)), byte > 32) << "byte " << byte;
    }
}

TEST_F(SignTest, TheTextOfASignatureIsReadToIts264thDigit) {
    const std::string signature = Sign();
    std::string upper = signature;
    std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
    EXPECT_TRUE(IsValid(upper));
    EXPECT_TRUE(IsValid(signature + "not hexadecimal"));
    EXPECT_TRUE(IsValid(signature + std::string(LIMIT - signature.size(), 'x')));
    EXPECT_FALSE(IsValid(signature + std::string(LIMIT - signature.size() + 1, 'x')));
    EXPECT_FALSE(IsValid(signature.substr(0, 263)));
    EXPECT_FALSE(IsValid("01100000"));
    EXPECT_FALSE(IsValid(""));
    std::string broken = signature;
    broken[3] = 'g';
    EXPECT_FALSE(IsValid(broken));
    EXPECT_FALSE(IsValid("01200000" + signature.substr(8))) << "the host's form, and no key of the host";
    EXPECT_EQ(verifier_.VerifyMaintSignContent(("02100000" + signature.substr(8)).c_str(),
                                               reinterpret_cast<const unsigned char*>(SCRIPT), sizeof(SCRIPT) - 1),
              -1);
    EXPECT_FALSE(verifier_.VerifySignContent(nullptr, SCRIPT));
    EXPECT_FALSE(verifier_.VerifySignContent(signature.c_str(), nullptr));
}

TEST_F(SignTest, AScriptIsAcceptedUpToItsLimit) {
    std::string script(LIMIT, 's');
    EXPECT_TRUE(IsValid(Sign(script), script));
    script += 's';
    EXPECT_FALSE(IsValid(Sign(script), script));
}

TEST_F(SignTest, ChecksRunSideBySideAndLeaveTheErrorQueueAsItWas) {
    const std::string signature = Sign();
    // Above any modulus: the public-key operation itself fails.
    const std::string too_large = "01100000" + std::string(256, 'f');
    std::array<std::jthread, 4> threads;
    for (std::jthread& thread : threads) {
        thread = std::jthread([&] {
            for (const bool host_error : {false, true}) {
                if (host_error) {
                    ERR_raise(ERR_LIB_USER, 42);
                }
                EXPECT_TRUE(CMaintSign().VerifySignContent(signature.c_str(), SCRIPT));
                EXPECT_FALSE(CMaintSign().VerifySignContent(too_large.c_str(), SCRIPT));
                EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), host_error ? 42 : 0);
                EXPECT_EQ(ERR_get_error(), 0U);
            }
        });
    }
}

TEST_F(SignTest, HexStopsAtTheShorterEnd) {
    unsigned char bytes[4] = {9, 9, 9, 9};
    EXPECT_EQ(verifier_.Hex2Bin("aB0f7", 5, bytes, 4), 2) << "an odd last digit is ignored";
    EXPECT_EQ(std::string(bytes, bytes + 4), "\xAB\x0F\t\t");
    EXPECT_EQ(verifier_.Hex2Bin("0102zz", 6, bytes, 2), 2) << "nothing behind the output's end is read";
    EXPECT_EQ(verifier_.Hex2Bin("01z2", 4, bytes, 4), -1);
    EXPECT_EQ(verifier_.Hex2Bin("0z", 2, bytes, 4), -1);
    EXPECT_EQ(verifier_.Hex2Bin("0", 1, bytes, 4), 0);
    EXPECT_EQ(verifier_.Hex2Bin("01", 2, bytes, 0x80000000U), 0) << "the size is signed";

    char text[5] = "....";
    const unsigned char data[] = {0x0A, 0xF1, 0xFF};
    EXPECT_EQ(verifier_.Bin2Hex(data, 3, text, 4), 4);
    EXPECT_STREQ(text, "0AF1");
    EXPECT_EQ(verifier_.Bin2Hex(data, 3, text, 3), 2);
    EXPECT_EQ(verifier_.Bin2Hex(data, 3, text, 2), 2);
    EXPECT_EQ(verifier_.Bin2Hex(data, 3, text, 1), 0);
    EXPECT_EQ(verifier_.Bin2Hex(data, 0, text, 4), 0);
    EXPECT_EQ(verifier_.Hex2Byte('g'), 255);
}

}  // namespace
