#include <rapidjson/reader.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qxhost/json.h"

namespace {

constexpr size_t kMaxDepth = 512;
constexpr size_t kMaxDocumentSize = std::numeric_limits<uint32_t>::max() - 1;

enum class EKind : uint8_t { Null, False, True, Number, Text, Key, Object, Array };

/// One value, or one key of an object, in document order: the children of a container follow it at once, and in an
/// object each value follows its key. Numbers are texts.
struct SNode {
    uint32_t uSpan;    // how many nodes the subtree has, this one included
    uint32_t uOffset;  // where the text of a Number, Text or Key begins in the document's buffer
    uint32_t uLength;  // how long it is
    EKind eKind;
};

/// Takes the events of the reader and lays down the nodes. An event refused ends the reading.
class CNodeWriter : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, CNodeWriter> {
public:
    CNodeWriter(std::vector<SNode>& nodes, const char* pBuffer) : m_nodes(nodes), m_pBuffer(pBuffer) {}

    bool Default() { return false; }  // binary numbers, which are never asked for
    bool Null() { return Add(EKind::Null); }
    bool Bool(bool bValue) { return Add(bValue ? EKind::True : EKind::False); }
    bool RawNumber(const char* pText, rapidjson::SizeType uLength, bool) { return Add(EKind::Number, pText, uLength); }
    bool String(const char* pText, rapidjson::SizeType uLength, bool) { return Add(EKind::Text, pText, uLength); }
    bool Key(const char* pText, rapidjson::SizeType uLength, bool) { return Add(EKind::Key, pText, uLength); }
    bool StartObject() { return Open(EKind::Object); }
    bool StartArray() { return Open(EKind::Array); }
    bool EndObject(rapidjson::SizeType) { return Close(); }
    bool EndArray(rapidjson::SizeType) { return Close(); }

private:
    bool Add(EKind eKind) {
        m_nodes.push_back({1, 0, 0, eKind});
        return true;
    }

    bool Add(EKind eKind, const char* pText, size_t uLength) {
        m_nodes.push_back({1, static_cast<uint32_t>(pText - m_pBuffer), static_cast<uint32_t>(uLength), eKind});
        return true;
    }

    bool Open(EKind eKind) {
        if (m_open.size() == kMaxDepth) {
            return false;
        }
        m_open.push_back(m_nodes.size());
        return Add(eKind);
    }

    bool Close() {
        SNode& container = m_nodes[m_open.back()];
        container.uSpan = static_cast<uint32_t>(m_nodes.size() - m_open.back());
        m_open.pop_back();
        return true;
    }

    std::vector<SNode>& m_nodes;
    const char* const m_pBuffer;
    std::vector<size_t> m_open;  // the containers around the next event, outermost first
};

/// The reader's own allocator leaves it to write through a null pointer when there is no memory.
class CThrowingAllocator : public rapidjson::CrtAllocator {
public:
    void* Malloc(size_t uSize) { return Checked(CrtAllocator::Malloc(uSize), uSize); }
    void* Realloc(void* pBlock, size_t uOldSize, size_t uNewSize) {
        return Checked(CrtAllocator::Realloc(pBlock, uOldSize, uNewSize), uNewSize);
    }

private:
    static void* Checked(void* pBlock, size_t uSize) {
        if (pBlock == nullptr && uSize != 0) {
            throw std::bad_alloc();
        }
        return pBlock;
    }
};

}  // namespace

namespace qxtools {

/// The text, in which the reader has resolved the escapes in place, and the nodes that point into it.
class __attribute__((visibility("hidden"))) CPJsonParse::CDocument {
public:
    explicit CDocument(const char* pszText) : m_strBuffer(pszText) {}

    bool Read() {
        if (m_strBuffer.size() > kMaxDocumentSize) {
            return false;
        }
        // Iterative, so that nesting costs no stack; numbers as texts, so that none is changed.
        constexpr unsigned int kFlags =
            rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
        rapidjson::InsituStringStream stream(m_strBuffer.data());
        CNodeWriter writer(m_nodes, m_strBuffer.data());
        rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, CThrowingAllocator> reader;
        return !reader.Parse<kFlags>(stream, writer).IsError();
    }

    SNode* Root() { return m_nodes.data(); }
    std::string_view Text(const SNode& node) const { return {m_strBuffer.data() + node.uOffset, node.uLength}; }

private:
    std::string m_strBuffer;
    std::vector<SNode> m_nodes;  // not empty once Read has succeeded
};

CPJsonParse::CPJsonParse() = default;
CPJsonParse::~CPJsonParse() = default;

bool CPJsonParse::LoadBuffer(const char* pszText) {
    m_pDocument.reset();
    if (pszText == nullptr) {
        return false;
    }
    try {
        auto pDocument = std::make_unique<CDocument>(pszText);
        if (pDocument->Read()) {
            m_pDocument = std::move(pDocument);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return m_pDocument != nullptr;
}

void* CPJsonParse::GetNode(void* pParent, const char* pszKey) const {
    if (!m_pDocument || pszKey == nullptr) {
        return nullptr;
    }
    SNode* pObject = pParent == nullptr ? m_pDocument->Root() : static_cast<SNode*>(pParent);
    if (pObject->eKind != EKind::Object) {
        return nullptr;
    }
    const std::string_view wanted(pszKey);
    SNode* const pEnd = pObject + pObject->uSpan;
    for (SNode* pKey = pObject + 1; pKey != pEnd;) {
        SNode* pValue = pKey + 1;
        if (m_pDocument->Text(*pKey) == wanted) {
            return pValue;
        }
        pKey = pValue + pValue->uSpan;
    }
    return nullptr;
}

bool CPJsonParse::GetAllNode(void* pNode, std::list<void*>& listNode) const {
    if (!m_pDocument) {
        return false;
    }
    SNode* pParent = pNode == nullptr ? m_pDocument->Root() : static_cast<SNode*>(pNode);
    if (pParent->eKind != EKind::Object && pParent->eKind != EKind::Array) {
        return false;
    }
    SNode* const pEnd = pParent + pParent->uSpan;
    for (SNode* pChild = pParent + 1; pChild != pEnd; pChild += pChild->uSpan) {
        if (pChild->eKind != EKind::Key) {
            listNode.push_back(pChild);
        }
    }
    return true;
}

CPString CPJsonParse::GetValue(void* pNode) const {
    if (!m_pDocument || pNode == nullptr) {
        return {};
    }
    const SNode& node = *static_cast<const SNode*>(pNode);
    switch (node.eKind) {
        case EKind::True:
            return "true";
        case EKind::False:
            return "false";
        case EKind::Number:
        case EKind::Text: {
            const std::string_view text = m_pDocument->Text(node);
            return {text.data(), text.size()};
        }
        default:
            return {};
    }
}

bool CPJsonParse::IsString(void* pNode) const {
    return m_pDocument && pNode != nullptr && static_cast<const SNode*>(pNode)->eKind == EKind::Text;
}

}  // namespace qxtools
