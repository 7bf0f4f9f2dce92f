#include "Vorrel/Platform/Linux/WatchTable.h"

#include <functional>

namespace korvane {

namespace {

constexpr WatchTable::Node top = 0;

/// Takes the first component off `path`; empty at its end.
std::string_view nextComponent(std::string_view &path)
{
    const auto begin = path.find_first_not_of('/');
    if (begin == path.npos)
        return {};
    const auto end = std::min(path.find('/', begin), path.size());
    const auto component = path.substr(begin, end - begin);
    path.remove_prefix(end);
    return component;
}

} // namespace

template <class Matches> WatchTable::Node WatchTable::Index::find(std::uint32_t hash, const Matches &matches) const
{
    if (slots.empty())
        return none;
    const std::size_t mask = slots.size() - 1;
    for (std::size_t at = hash & mask; slots[at].node != none; at = (at + 1) & mask)
        if (slots[at].hash == hash && matches(slots[at].node))
            return slots[at].node;
    return none;
}

void WatchTable::Index::insert(std::uint32_t hash, Node node)
{
    if ((count + 1) * 4 > slots.size() * 3)
        grow();
    const std::size_t mask = slots.size() - 1;
    std::size_t at = hash & mask;
    while (slots[at].node != none)
        at = (at + 1) & mask;
    slots[at] = {hash, node};
    ++count;
}

void WatchTable::Index::erase(std::uint32_t hash, Node node)
{
    const std::size_t mask = slots.size() - 1;
    std::size_t at = hash & mask;
    while (slots[at].node != node)
        at = (at + 1) & mask;
    // Later slots of the run close the gap, so that no search stops before its end.
    for (std::size_t next = (at + 1) & mask; slots[next].node != none; next = (next + 1) & mask) {
        const std::size_t home = slots[next].hash & mask;
        if (((next - home) & mask) >= ((next - at) & mask)) {
            slots[at] = slots[next];
            at = next;
        }
    }
    slots[at] = {};
    --count;
}

void WatchTable::Index::grow()
{
    std::vector<Slot> old(slots.empty() ? 64 : slots.size() * 2);
    old.swap(slots);
    count = 0;
    for (const Slot &slot : old)
        if (slot.node != none)
            insert(slot.hash, slot.node);
}

WatchTable::WatchTable() { nodes.emplace_back().used = true; }

std::uint32_t WatchTable::hashOf(Node parent, std::string_view name)
{
    const auto hash = std::hash<std::string_view>()(name) ^ (parent * 0x9e3779b97f4a7c15ULL);
    return std::uint32_t(hash ^ (hash >> 32));
}

std::uint32_t WatchTable::hashOf(int watch) { return std::uint32_t(watch) * 0x9e3779b1U; }

WatchTable::Node WatchTable::child(Node parent, std::string_view name) const
{
    const auto matches = [&](Node node) { return nodes[node].parent == parent && nodes[node].name == name; };
    return names.find(hashOf(parent, name), matches);
}

WatchTable::Node WatchTable::find(std::string_view path) const
{
    Node node = top;
    for (auto name = nextComponent(path); !name.empty() && node != none; name = nextComponent(path))
        node = child(node, name);
    return node;
}

WatchTable::Node WatchTable::insert(std::string_view path)
{
    Node node = top;
    for (auto name = nextComponent(path); !name.empty(); name = nextComponent(path)) {
        const Node known = child(node, name);
        node = known == none ? add(node, name) : known;
    }
    return node;
}

WatchTable::Node WatchTable::add(Node parent, std::string_view name)
{
    Node node = end();
    if (unused.empty()) {
        nodes.emplace_back();
    } else {
        node = unused.back();
        unused.pop_back();
    }
    Entry &entry = nodes[node];
    entry.name = name;
    entry.used = true;
    entry.parent = parent;
    entry.next = nodes[parent].firstChild;
    if (entry.next != none)
        nodes[entry.next].previous = node;
    nodes[parent].firstChild = node;
    names.insert(hashOf(parent, name), node);
    return node;
}

WatchTable::Node WatchTable::watchedBy(int watch) const
{
    return numbers.find(hashOf(watch), [&](Node node) { return nodes[node].watch == watch; });
}

std::string WatchTable::path(Node node) const
{
    std::size_t length = 0;
    for (Node at = node; at != top; at = nodes[at].parent)
        length += nodes[at].name.size() + 1;
    if (length == 0)
        return "/";
    std::string path(length, '/');
    for (Node at = node; at != top; at = nodes[at].parent) {
        length -= nodes[at].name.size();
        path.replace(length, nodes[at].name.size(), nodes[at].name);
        --length;
    }
    return path;
}

void WatchTable::setWatch(Node node, int watch)
{
    Entry &entry = nodes[node];
    if (entry.watch != noWatch) {
        numbers.erase(hashOf(entry.watch), node);
        --watchCount;
    }
    entry.watch = watch;
    if (watch != noWatch) {
        numbers.insert(hashOf(watch), node);
        ++watchCount;
    }
}

void WatchTable::setPolled(Node node, bool polled)
{
    polledCount += std::size_t(polled) - std::size_t(nodes[node].polled);
    nodes[node].polled = polled;
}

std::vector<int> WatchTable::remove(Node node)
{
    std::vector<int> watches;
    // Depth first with the nodes themselves as the stack: a tree may be deeper than a thread's stack is long.
    for (Node at = node;;) {
        if (nodes[at].firstChild != none) {
            at = nodes[at].firstChild;
            continue;
        }
        const Node parent = nodes[at].parent;
        release(at, watches);
        if (at == node)
            return watches;
        at = parent;
    }
}

/// Forgets a node that has nothing below it.
void WatchTable::release(Node node, std::vector<int> &watches)
{
    if (nodes[node].watch != noWatch)
        watches.push_back(nodes[node].watch);
    setWatch(node, noWatch);
    setPolled(node, false);
    if (node == top)
        return;
    unlink(node);
    nodes[node] = {};
    unused.push_back(node);
}

void WatchTable::unlink(Node node)
{
    const Entry &entry = nodes[node];
    names.erase(hashOf(entry.parent, entry.name), node);
    if (entry.next != none)
        nodes[entry.next].previous = entry.previous;
    if (entry.previous != none)
        nodes[entry.previous].next = entry.next;
    else
        nodes[entry.parent].firstChild = entry.next;
}

} // namespace korvane
