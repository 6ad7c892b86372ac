#include "tests/plugin/script_signer.h"

#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <stdexcept>

namespace {

std::string Base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

cJSON* MakeScript(const ScriptSigner& signer, const ScriptSpec& script) {
    const std::string data = Base64(script.body);
    cJSON* object = cJSON_CreateObject();
    cJSON_AddStringToObject(object, "scriptid", script.id.c_str());
    cJSON_AddStringToObject(object, "scripttype", script.type.c_str());
    cJSON_AddStringToObject(object, "scriptdata", data.c_str());
    cJSON_AddStringToObject(object, "sign", signer.Sign(script.signed_right ? data : data + "=").c_str());
    cJSON_AddStringToObject(object, "scriptpath", script.path.c_str());
    cJSON_AddStringToObject(object, "timeout", script.timeout.c_str());
    cJSON_AddStringToObject(object, "timeoutaction", script.timeout_action.c_str());
    cJSON_AddStringToObject(object, "checkret", script.check_ret.c_str());
    return object;
}

}  // namespace

ScriptSigner::ScriptSigner(const std::string& pem_file) : key_(nullptr) {
    if (FILE* file = fopen(pem_file.c_str(), "re")) {
        key_ = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    if (!key_)
        throw std::runtime_error("no private key in " + pem_file);
}

ScriptSigner::~ScriptSigner() {
    EVP_PKEY_free(key_);
}

ScriptSigner::Message ScriptSigner::MessageFor(const std::string& data) {
    Message message;
    message.fill(0x5A);
    // Keeps the message, read as a number, below the modulus.
    message[0] = 0;
    if (EVP_Digest(data.data(), data.size(), &message[1], nullptr, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("cannot hash");
    return message;
}

std::string ScriptSigner::Sign(const std::string& data) const {
    return SignMessage(MessageFor(data));
}

std::string ScriptSigner::SignMessage(const Message& message) const {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key_, nullptr),
                                                                              EVP_PKEY_CTX_free);
    Message block{};
    size_t length = block.size();
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_sign(context.get(), block.data(), &length, message.data(), message.size()) != 1 ||
        length != block.size())
        throw std::runtime_error("cannot sign");
    std::string text = "01100000";
    char digits[3];
    for (const unsigned char byte : block) {
        snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

std::string MakePolicy(const ScriptSigner& signer, const std::string& id, const std::string& command,
                       const std::vector<ScriptSpec>& scripts) {
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(root.get(), "ID", id.c_str());
    cJSON_AddStringToObject(root.get(), "Command", command.c_str());
    cJSON* list = cJSON_AddArrayToObject(cJSON_AddObjectToObject(root.get(), "param"), "scriptinfo");
    for (const ScriptSpec& script : scripts)
        cJSON_AddItemToArray(list, MakeScript(signer, script));
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(root.get()), cJSON_free);
    return text.get();
}
