#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>

#include "policy/key_file.h"
#include "qxhost/signature.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

namespace fs = std::filesystem;

using qxppolicy::Key;
using qxppolicy::Sign;

const std::string kScript = "#!/bin/sh\nuptime\n";

Key NewKey(const char* type = "ED25519") {
    return {qxppolicy::KeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, type, size_t{512})), qxppolicy::Scheme::kEd25519};
}

bool Valid(const std::string& signature, const std::string& data = kScript) {
    const int result = qxchksign_buffer(signature.c_str(), reinterpret_cast<const unsigned char*>(data.data()),
                                        static_cast<unsigned int>(data.size()));
    EXPECT_TRUE(result == 0 || result == -1) << result;
    return result == 0;
}

class Signature : public testing::Test {
protected:
    Signature() { QxSetTrustDirectory(directory_.Path().c_str()); }
    ~Signature() override { QxSetTrustDirectory(nullptr); }

    std::string WriteKey(const std::string& name, const Key& key) const {
        return directory_.Write(name, qxppolicy::WriteKeyPair(key).public_pem);
    }

    const TempDir directory_;
};

TEST_F(Signature, AcceptsTheKnownAnswer) {
    // RFC 8032 section 7.1, TEST 2; the key as SubjectPublicKeyInfo.
    directory_.Write("known.pem",
                     "-----BEGIN PUBLIC KEY-----\n"
                     "MCowBQYDK2VwAyEAPUAXw+hDiVqStwqnTRt+vJyYLM8uxJaMwM1V8Sr0Zgw=\n"
                     "-----END PUBLIC KEY-----\n");
    std::string signature =
        "0120000092a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da"
        "085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302aeeb00d291612bb0c00";
    EXPECT_TRUE(Valid(signature, "\x72"));
    EXPECT_FALSE(Valid(signature, "\x73"));
    std::transform(signature.begin(), signature.end(), signature.begin(), toupper);
    EXPECT_TRUE(Valid(signature, "\x72"));
}

TEST_F(Signature, TrustsTheKeysThatAreInTheDirectoryAtTheMoment) {
    const Key first = NewKey();
    const Key second = NewKey();
    EXPECT_FALSE(Valid(Sign(first, kScript))) << "no key yet";
    const std::string file = WriteKey("first.pem", first);
    EXPECT_TRUE(Valid(Sign(first, kScript)));
    EXPECT_FALSE(Valid(Sign(second, kScript)));
    WriteKey("second.pem", second);
    EXPECT_TRUE(Valid(Sign(second, kScript)));
    EXPECT_TRUE(Valid(Sign(first, ""), ""));
    fs::remove(file);
    EXPECT_FALSE(Valid(Sign(first, kScript)));
    fs::create_symlink(WriteKey("first.txt", first), directory_.Path() / "link.pem");
    EXPECT_TRUE(Valid(Sign(first, kScript)));
    QxSetTrustDirectory((directory_.Path() / "missing").c_str());
    EXPECT_FALSE(Valid(Sign(second, kScript)));
}

TEST_F(Signature, PassesOverFilesThatAreNotTrustedKeys) {
    const Key key = NewKey();
    const std::string signature = Sign(key, kScript);
    const std::string pem = qxppolicy::WriteKeyPair(key).public_pem;
    directory_.Write("key.pem.bak", pem);
    directory_.Write(".key.pem", pem);
    directory_.Write("large.pem", std::string(65536, '#') + '\n' + pem);
    directory_.Write("encrypted.pem",
                     "-----BEGIN PUBLIC KEY-----\nProc-Type: 4,ENCRYPTED\n"
                     "DEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n" +
                         pem.substr(pem.find('\n') + 1));
    directory_.Write("empty.pem", "");
    directory_.Write("text.pem", "not a key\n");
    directory_.Write("cut.pem", pem.substr(0, pem.size() / 2));
    const Key rsa = NewKey("RSA");  // of 512 bits, so that its signatures are as long
    WriteKey("rsa.pem", rsa);
    WriteKey("agreement.pem", NewKey("X25519"));
    fs::create_directory(directory_.Path() / "directory.pem");
    ASSERT_EQ(mkfifo((directory_.Path() / "fifo.pem").c_str(), 0600), 0);
    const long descriptors = CountEntries("/proc/self/fd");
    EXPECT_FALSE(Valid(signature));
    EXPECT_FALSE(Valid(Sign(rsa, kScript)));
    directory_.Write("zzz.pem", pem);
    EXPECT_TRUE(Valid(signature));
    EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
    EXPECT_EQ(ERR_peek_error(), 0U) << "an OpenSSL error was left behind";
}

TEST_F(Signature, RefusesEveryOtherSignatureText) {
    const Key key = NewKey();
    WriteKey("key.pem", key);
    const std::string good = Sign(key, kScript);
    ASSERT_TRUE(Valid(good));
    for (const std::string& bad :
         {std::string(), good.substr(2), good.substr(0, 135), good.substr(0, 134), good + "0", good + "00", " " + good,
          "02200000" + good.substr(8), "00002001" + good.substr(8), good.substr(0, 135) + "g",
          good.substr(0, 20) + ":" + good.substr(21), "01200000" + std::string(128, '0')}) {
        EXPECT_FALSE(Valid(bad)) << bad;
    }
    EXPECT_FALSE(Valid(good, kScript + " "));
    EXPECT_FALSE(Valid(good, ""));
    EXPECT_EQ(qxchksign_buffer(nullptr, reinterpret_cast<const unsigned char*>("x"), 1), -1);
    EXPECT_EQ(qxchksign_buffer(good.c_str(), nullptr, 0), -1);
    EXPECT_EQ(ERR_peek_error(), 0U) << "an OpenSSL error was left behind";
}

TEST_F(Signature, IsCheckedWhileTheDirectoryIsChanged) {
    const Key key = NewKey();
    WriteKey("key.pem", key);
    const std::string signature = Sign(key, kScript);
    std::jthread setter([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            QxSetTrustDirectory((directory_.Path() / ".").c_str());
            QxSetTrustDirectory(directory_.Path().c_str());
        }
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(Valid(signature));
    }
}

}  // namespace
