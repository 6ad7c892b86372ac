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

enum class Kind : uint8_t { kNull, kFalse, kTrue, kNumber, kText, kKey, kObject, kArray };

/// One value, or one key of an object, in document order: the children of a container follow it at once, and in an
/// object each value follows its key. Numbers are texts.
struct Node {
    uint32_t span;    // how many nodes the subtree has, this one included
    uint32_t offset;  // where the text of a kNumber, kText or kKey begins in the document's buffer
    uint32_t length;  // how long it is
    Kind kind;
};

/// Takes the events of the reader and lays down the nodes. An event refused ends the reading.
class NodeWriter : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, NodeWriter> {
public:
    NodeWriter(std::vector<Node>& nodes, const char* buffer) : nodes_(nodes), buffer_(buffer) {}

    bool Default() { return false; }  // binary numbers, which are never asked for
    bool Null() { return Add(Kind::kNull); }
    bool Bool(bool value) { return Add(value ? Kind::kTrue : Kind::kFalse); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool) { return Add(Kind::kNumber, text, length); }
    bool String(const char* text, rapidjson::SizeType length, bool) { return Add(Kind::kText, text, length); }
    bool Key(const char* text, rapidjson::SizeType length, bool) { return Add(Kind::kKey, text, length); }
    bool StartObject() { return Open(Kind::kObject); }
    bool StartArray() { return Open(Kind::kArray); }
    bool EndObject(rapidjson::SizeType) { return Close(); }
    bool EndArray(rapidjson::SizeType) { return Close(); }

private:
    bool Add(Kind kind) {
        nodes_.push_back({1, 0, 0, kind});
        return true;
    }

    bool Add(Kind kind, const char* text, size_t length) {
        nodes_.push_back({1, static_cast<uint32_t>(text - buffer_), static_cast<uint32_t>(length), kind});
        return true;
    }

    bool Open(Kind kind) {
        if (open_.size() == kMaxDepth) {
            return false;
        }
        open_.push_back(nodes_.size());
        return Add(kind);
    }

    bool Close() {
        Node& container = nodes_[open_.back()];
        container.span = static_cast<uint32_t>(nodes_.size() - open_.back());
        open_.pop_back();
        return true;
    }

    std::vector<Node>& nodes_;
    const char* const buffer_;
    std::vector<size_t> open_;  // the containers around the next event, outermost first
};

/// The reader's own allocator leaves it to write through a null pointer when there is no memory.
class ThrowingAllocator : public rapidjson::CrtAllocator {
public:
    void* Malloc(size_t size) { return Checked(CrtAllocator::Malloc(size), size); }
    void* Realloc(void* block, size_t old_size, size_t new_size) {
        return Checked(CrtAllocator::Realloc(block, old_size, new_size), new_size);
    }

private:
    static void* Checked(void* block, size_t size) {
        if (block == nullptr && size != 0) {
            throw std::bad_alloc();
        }
        return block;
    }
};

}  // namespace

namespace qxtools {

/// The text, in which the reader has resolved the escapes in place, and the nodes that point into it.
class __attribute__((visibility("hidden"))) CPJsonParse::CDocument {
public:
    explicit CDocument(const char* text) : buffer_(text) {}

    bool Read() {
        if (buffer_.size() > kMaxDocumentSize) {
            return false;
        }
        // Iterative, so that nesting costs no stack; numbers as texts, so that none is changed.
        constexpr unsigned int kFlags =
            rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
        rapidjson::InsituStringStream stream(buffer_.data());
        NodeWriter writer(nodes_, buffer_.data());
        rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ThrowingAllocator> reader;
        return !reader.Parse<kFlags>(stream, writer).IsError();
    }

    Node* Root() { return nodes_.data(); }
    std::string_view Text(const Node& node) const { return {buffer_.data() + node.offset, node.length}; }

private:
    std::string buffer_;
    std::vector<Node> nodes_;  // not empty once Read has succeeded
};

CPJsonParse::CPJsonParse() = default;
CPJsonParse::~CPJsonParse() = default;

bool CPJsonParse::LoadBuffer(const char* text) {
    m_pDocument.reset();
    if (text == nullptr) {
        return false;
    }
    try {
        auto document = std::make_unique<CDocument>(text);
        if (document->Read()) {
            m_pDocument = std::move(document);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return m_pDocument != nullptr;
}

void* CPJsonParse::GetNode(void* parent, const char* key) const {
    if (m_pDocument == nullptr || key == nullptr) {
        return nullptr;
    }
    Node* object = parent == nullptr ? m_pDocument->Root() : static_cast<Node*>(parent);
    if (object->kind != Kind::kObject) {
        return nullptr;
    }
    const std::string_view wanted(key);
    Node* const end = object + object->span;
    for (Node* member = object + 1; member != end;) {
        Node* value = member + 1;
        if (m_pDocument->Text(*member) == wanted) {
            return value;
        }
        member = value + value->span;
    }
    return nullptr;
}

bool CPJsonParse::GetAllNode(void* node, std::list<void*>& nodes) const {
    if (m_pDocument == nullptr) {
        return false;
    }
    Node* parent = node == nullptr ? m_pDocument->Root() : static_cast<Node*>(node);
    if (parent->kind != Kind::kObject && parent->kind != Kind::kArray) {
        return false;
    }
    Node* const end = parent + parent->span;
    for (Node* child = parent + 1; child != end; child += child->span) {
        if (child->kind != Kind::kKey) {
            nodes.push_back(child);
        }
    }
    return true;
}

CPString CPJsonParse::GetValue(void* handle) const {
    if (m_pDocument == nullptr || handle == nullptr) {
        return {};
    }
    const Node& node = *static_cast<const Node*>(handle);
    switch (node.kind) {
        case Kind::kTrue:
            return "true";
        case Kind::kFalse:
            return "false";
        case Kind::kNumber:
        case Kind::kText: {
            const std::string_view text = m_pDocument->Text(node);
            return {text.data(), text.size()};
        }
        default:
            return {};
    }
}

bool CPJsonParse::IsString(void* node) const {
    return m_pDocument != nullptr && node != nullptr && static_cast<const Node*>(node)->kind == Kind::kText;
}

}  // namespace qxtools
