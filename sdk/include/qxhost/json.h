#pragma once

#include <list>
#include <memory>

#include "qxhost/cpstring.h"

namespace qxtools {

/// Reads a JSON document into nodes, named by opaque handles that live as long as the reader or until the next
/// LoadBuffer. One reader belongs to one thread at a time.
///
/// Keys are matched case-sensitively; of equal keys in one object the first counts. White space around the document is
/// allowed, any other text after it is an error, and so are more than 512 levels of nesting. No document can exhaust
/// the stack, neither when it is read nor when it is released.
///
/// The grammar is RFC 8259 without extensions, with these limits: a document is smaller than 4 GiB, and a number beyond
/// the range of a double is an error. Bytes in strings that are not valid UTF-8 pass unchanged. Of an escaped surrogate
/// pair, the high half alone is an error, and the low half alone gives its three bytes.
class CPJsonParse {
public:
    CPJsonParse();
    ~CPJsonParse();
    CPJsonParse(const CPJsonParse&) = delete;
    CPJsonParse& operator=(const CPJsonParse&) = delete;

    /// Reads a NUL-terminated document. False for null, an empty text, text that is not one JSON document, or when
    /// memory is short; the reader is then empty.
    bool LoadBuffer(const char* pszText);

    /// The member pszKey of an object; pParent null means the root. Null when there is none, the parent is not an
    /// object, or the key is null. A key with NUL in it is never found by its beginning.
    void* GetNode(void* pParent, const char* pszKey) const;

    /// Appends the children of an array or an object, in document order. pNode null means the root. False when the
    /// node is neither.
    bool GetAllNode(void* pNode, std::list<void*>& listNode) const;

    /// The value as text: a string's bytes with escapes resolved, a number as it is written in the document, "true",
    /// "false"; empty for null, an object, an array or a null handle.
    CPString GetValue(void* pNode) const;

    /// True for a string; GetValue does not tell one from a number or a truth value.
    bool IsString(void* pNode) const;

private:
    class CDocument;
    std::unique_ptr<CDocument> m_pDocument;
};

}  // namespace qxtools

/// The same JSON text made plain ASCII: every non-ASCII character as \uXXXX (a surrogate pair above U+FFFF), every byte
/// that is not part of valid UTF-8 as \ufffd.
/// @return a new text for free(), or null when the text is null, is ASCII already, or memory is short.
extern "C" char* QxJsonEncodeStr(const char* pszText);
