// The simulated registry's tree (see hive.h).
#include "hive.h"

#include <chrono>

#include "wdm.h"

#include "text.h"

namespace kvsim::reg {
namespace {

std::shared_ptr<Node>& RootSlot() {
    static auto* root = new std::shared_ptr<Node>;  // never destroyed: handles may outlive main
    return *root;
}

std::shared_ptr<Node> MakeEmptyTree() {
    auto root = std::make_shared<Node>();
    root->name = u"REGISTRY";
    root->lastWriteTime = Now();
    root->AddChild(u"MACHINE", false);
    root->AddChild(u"USER", false);
    return root;
}

void MarkDeleted(Node& node) {
    node.deleted = true;
    for (auto& [key, child] : node.children) MarkDeleted(*child);
}

}  // namespace

std::shared_ptr<Node> Node::FindChild(std::u16string_view childName) const {
    auto it = children.find(text::Upcase(childName));
    return it == children.end() ? nullptr : it->second;
}

Value* Node::FindValue(std::u16string_view valueName) {
    for (auto& v : values)
        if (text::EqualNoCase(v.name, valueName)) return &v;
    return nullptr;
}

void Node::SetValue(std::u16string_view valueName, ULONG type, std::vector<uint8_t> data) {
    if (Value* v = FindValue(valueName)) {
        v->type = type;
        v->data = std::move(data);
    } else {
        values.push_back(Value{std::u16string(valueName), type, std::move(data)});
    }
    Touch();
}

bool Node::DeleteValue(std::u16string_view valueName) {
    for (auto it = values.begin(); it != values.end(); ++it) {
        if (text::EqualNoCase(it->name, valueName)) {
            values.erase(it);
            Touch();
            return true;
        }
    }
    return false;
}

std::shared_ptr<Node> Node::AddChild(std::u16string_view childName, bool childVolatile) {
    auto child = std::make_shared<Node>();
    child->name = std::u16string(childName);
    child->isVolatile = childVolatile;
    child->lastWriteTime = Now();
    // Children hold their parent weakly, so that deleting a subtree frees it.
    child->parent = weak_from_this();
    children[text::Upcase(childName)] = child;
    Touch();
    return child;
}

void Node::Touch() { lastWriteTime = Now(); }

std::mutex& Lock() {
    static auto* lock = new std::mutex;
    return *lock;
}

std::shared_ptr<Node> Root() {
    auto& root = RootSlot();
    if (!root) {
        root = MakeEmptyTree();
    }
    return root;
}

void ResetLocked() {
    auto& root = RootSlot();
    if (root) MarkDeleted(*root);
    root = nullptr;
    Root();
}

void DeleteTree(const std::shared_ptr<Node>& node) {
    if (auto parent = node->parent.lock()) {
        parent->children.erase(text::Upcase(node->name));
        parent->Touch();
    }
    MarkDeleted(*node);
}

bool IsHiveRoot(const Node& node) {
    auto parent = node.parent.lock();
    return !parent || !parent->parent.lock();
}

std::u16string PathOf(const Node& node) {
    std::u16string path = u"\\" + node.name;
    for (auto p = node.parent.lock(); p; p = p->parent.lock()) path = u"\\" + p->name + path;
    return path;
}

std::optional<std::vector<std::u16string>> SplitHostPath(std::string_view path) {
    std::u16string p = text::FromUtf8(path);
    std::vector<std::u16string> parts;
    size_t start = 0;
    while (start <= p.size()) {
        size_t end = p.find(u'\\', start);
        if (end == std::u16string::npos) end = p.size();
        if (end > start) parts.push_back(p.substr(start, end - start));
        start = end + 1;
    }
    if (parts.empty()) return std::nullopt;
    std::u16string first = text::Upcase(parts[0]);
    std::vector<std::u16string> out;
    if (first == u"REGISTRY" && !p.empty() && p[0] == u'\\') {
        out.assign(parts.begin() + 1, parts.end());
        if (out.empty()) return std::nullopt;
        return out;
    }
    if (first == u"HKEY_LOCAL_MACHINE" || first == u"HKLM") {
        out.push_back(u"MACHINE");
    } else if (first == u"HKEY_USERS" || first == u"HKU") {
        out.push_back(u"USER");
    } else {
        return std::nullopt;
    }
    out.insert(out.end(), parts.begin() + 1, parts.end());
    return out;
}

std::shared_ptr<Node> Walk(const std::vector<std::u16string>& components, bool create) {
    auto node = Root();
    for (size_t i = 0; i < components.size(); ++i) {
        auto child = node->FindChild(components[i]);
        if (!child) {
            // Below \Registry only the hive roots exist; they are not created.
            if (!create || i == 0) return nullptr;
            child = node->AddChild(components[i], node->isVolatile);
        }
        node = child;
    }
    return node;
}

// Key timestamps are the simulated system time (FILETIME units), so that a
// run's registry does not depend on the host's clock.
LONGLONG Now() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

}  // namespace kvsim::reg
