#pragma once

#include <string>

namespace qxpagent {

/// The outcome of reading one member of a document that a client sent: the text, or what is wrong in one sentence.
struct MemberText {
    std::string text;
    std::string error;  // empty on success
};

/// Reads the non-empty string `member` of a JSON object. The document is read by the reader that the plugin uses, so
/// that agent and plugin never disagree about what it says.
MemberText ReadStringMember(const std::string& document, const std::string& member);

}  // namespace qxpagent
