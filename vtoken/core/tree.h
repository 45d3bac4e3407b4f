// The file tree of the applets that emulate an ISO file system (Java,
// Joker, IDProtect): directories and files by 2-byte identifier, with
// access bytes, and the stored form of such a tree.
#pragma once

#include "core/by_id.h"
#include "core/bytes.h"
#include "core/state_json.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace vtoken {

using Path = std::vector<std::uint16_t>;

// Memory a node takes beside a file's content.
constexpr std::size_t kNodeCost = 32;

// A dialect's node derives from TreeNode<itself> and adds its own fields.
template <class Node>
struct TreeNode {
    bool isDir = false;
    std::uint16_t id = 0;
    Bytes access;
    Bytes content;               // files only
    std::vector<Node> children;  // in creation order

    Node* child(std::uint16_t childId) { return findById(children, childId); }

    // The memory of this node and all below it.
    std::size_t cost() const {
        std::size_t total = kNodeCost + content.size();
        for (const auto& c : children) total += c.cost();
        return total;
    }
};

// Null if the path (below the root) does not lead to a node.
template <class Node>
Node* findNode(Node& root, const Path& below) {
    Node* n = &root;
    for (std::uint16_t id : below)
        if (!n->isDir || !(n = n->child(id))) return nullptr;
    return n;
}

// What of `memory` the tree leaves free.
template <class Node>
std::size_t memoryLeft(const Node& root, std::size_t memory) {
    const std::size_t used = root.cost();
    return used < memory ? memory - used : 0;
}

// The stored form of a node: "id", "type" ("dir" or "file"), "access", then
// a file's "content", or a directory's own fields and its "children".
template <class Node, class DirFields>
nlohmann::ordered_json treeToJson(const Node& n, const DirFields& dirFields) {
    using json = nlohmann::ordered_json;
    json j = {{"id", hexNumber(n.id, 4)},
              {"type", n.isDir ? "dir" : "file"},
              {"access", toHex(n.access)}};
    if (!n.isDir) {
        j["content"] = toHex(n.content);
        return j;
    }
    dirFields(j, n);
    json children = json::array();
    for (const auto& c : n.children) children.push_back(treeToJson(c, dirFields));
    j["children"] = children;
    return j;
}

struct TreeLimits {
    // Access bytes of this size, required; any size, absent as none, if -1.
    int accessSize;
    std::size_t contentMax;
};

// Deeper trees are refused when a state is read back.
constexpr int kTreeDepthMax = 16;

// The inverse of treeToJson; throws std::invalid_argument naming the node.
template <class Node, class DirFields>
Node treeFromJson(const nlohmann::ordered_json& j, const TreeLimits& limits,
                  const DirFields& dirFields, int depth = 0) {
    using json = nlohmann::ordered_json;
    if (!j.is_object()) throw std::invalid_argument("node: not an object");
    if (depth > kTreeDepthMax) throw std::invalid_argument("tree: too deep");
    const Bytes id = hexField(j.value("id", json()), "node.id", 2);
    Node n;
    n.id = static_cast<std::uint16_t>(id[0] << 8 | id[1]);
    const std::string where = "node " + hexNumber(n.id, 4);
    const std::string type = j.value("type", "");
    if (type != "dir" && type != "file") throw std::invalid_argument(where + ": type dir or file");
    n.isDir = type == "dir";
    n.access = hexField(j.value("access", limits.accessSize < 0 ? json("") : json()), "node.access",
                        limits.accessSize);
    if (!n.isDir) {
        n.content = hexField(j.value("content", json("")), "node.content");
        if (n.content.size() > limits.contentMax)
            throw std::invalid_argument(where + ": above " + std::to_string(limits.contentMax) +
                                        " bytes");
        return n;
    }
    dirFields(n, j, where);
    const json& children = j.value("children", json::array());
    if (!children.is_array()) throw std::invalid_argument(where + ": children is a list");
    for (const auto& c : children) {
        Node child = treeFromJson<Node>(c, limits, dirFields, depth + 1);
        if (n.child(child.id))
            throw std::invalid_argument(where + ": child " + hexNumber(child.id, 4) + " twice");
        n.children.push_back(std::move(child));
    }
    return n;
}

}  // namespace vtoken
