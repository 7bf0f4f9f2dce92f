#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

/// Which folder belongs to which watch: the known folders as a tree of names, about a hundred bytes each. A folder
/// whose name changes is one node, however much lies below it. Knows no disk. Not for several threads at once.
class WatchTable {
public:
    using Node = std::uint32_t;
    static constexpr Node none = ~Node(0);
    static constexpr int noWatch = -1;

    WatchTable();

    /// The node of an absolute path; `none` when the table has not got it.
    Node find(std::string_view path) const;
    /// The same, and makes it, with what is missing on the way to it, when there is none.
    Node insert(std::string_view path);
    /// The node that has this watch; `none` when no node has it.
    Node watchedBy(int watch) const;
    std::string path(Node node) const;

    int watch(Node node) const { return nodes[node].watch; }
    /// Sets or, with `noWatch`, takes away a node's watch. No other node may have it.
    void setWatch(Node node, int watch);
    std::size_t watches() const { return watchCount; }

    /// Whether the folder is only looked at by its time stamp.
    bool isPolled(Node node) const { return nodes[node].polled; }
    void setPolled(Node node, bool polled);
    std::size_t polled() const { return polledCount; }
    /// A time of the folder that its owner keeps here.
    std::int64_t stamp(Node node) const { return nodes[node].stamp; }
    void setStamp(Node node, std::int64_t stamp) { nodes[node].stamp = stamp; }

    /// Forgets a node with everything below it, and gives the watches that they had.
    std::vector<int> remove(Node node);

    /// Nodes are numbered below this; `isUsed` tells which of the numbers are folders that were entered.
    Node end() const { return Node(nodes.size()); }
    bool isEntered(Node node) const { return nodes[node].used && (nodes[node].polled || nodes[node].watch != noWatch); }

private:
    struct Entry {
        std::string name;
        Node parent = none, firstChild = none, next = none, previous = none;
        int watch = noWatch;
        bool used = false, polled = false;
        std::int64_t stamp = 0;
    };

    /// Numbers of nodes by a hash that whoever asks supplies.
    class Index {
    public:
        template <class Matches> Node find(std::uint32_t hash, const Matches &matches) const;
        void insert(std::uint32_t hash, Node node);
        void erase(std::uint32_t hash, Node node);

    private:
        struct Slot {
            std::uint32_t hash = 0;
            Node node = none;
        };
        void grow();
        std::vector<Slot> slots;
        std::size_t count = 0;
    };

    static std::uint32_t hashOf(Node parent, std::string_view name);
    static std::uint32_t hashOf(int watch);
    Node child(Node parent, std::string_view name) const;
    Node add(Node parent, std::string_view name);
    void unlink(Node node);
    void release(Node node, std::vector<int> &watches);

    std::deque<Entry> nodes; // the first is the root of the file system; a deque never copies them to grow
    std::vector<Node> unused;
    Index names, numbers;
    std::size_t watchCount = 0, polledCount = 0;
};

} // namespace korvane
