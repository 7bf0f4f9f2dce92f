#include "Vorrel/FileIndex/IndexWriters.h"

#include <algorithm>

namespace korvane {

IndexWriters::Turn::Turn(std::shared_ptr<IndexWriters> writers) :
    writers(std::move(writers)), place(this->writers->turns.emplace(this->writers->turns.end()))
{
}

IndexWriters::Turn::~Turn()
{
    if (writers)
        writers->leave(place);
}

Task<IndexWriters::Turn> IndexWriters::stagingTurn()
{
    Turn turn(shared_from_this());
    while (turn.place != turns.begin()) {
        std::function<void(Continuation<void>)> begin = [&turn](Continuation<void> wake) { turn.place->wake = std::move(wake); };
        co_await suspend<void>(std::move(begin));
    }
    co_return std::move(turn);
}

void IndexWriters::leave(std::list<Waiter>::iterator place)
{
    const bool hadTheTurn = place == turns.begin();
    turns.erase(place);
    // One that has been cancelled meanwhile ignores this, and leaves in its turn.
    if (hadTheTurn && !turns.empty() && turns.front().wake)
        turns.front().wake->resume();
}

std::shared_ptr<const IndexChanges> IndexWriters::watch()
{
    auto changes = std::make_shared<IndexChanges>();
    watched.push_back(changes);
    return changes;
}

template <class Change> void IndexWriters::tell(Change change)
{
    std::erase_if(watched, [](const auto &changes) { return changes.expired(); });
    for (const auto &weak : watched) {
        const auto changes = weak.lock();
        if (changes->everything)
            continue;
        change(*changes);
        if (changes->paths.size() + changes->trees.size() > IndexChanges::mostPaths)
            *changes = {.everything = true};
    }
}

void IndexWriters::changed(const std::vector<std::string> &paths)
{
    tell([&](IndexChanges &changes) { changes.paths.insert(changes.paths.end(), paths.begin(), paths.end()); });
}

void IndexWriters::removedTree(const std::string &path)
{
    tell([&](IndexChanges &changes) { changes.trees.push_back(path); });
}

void IndexWriters::changedEverything()
{
    tell([](IndexChanges &changes) { changes = {.everything = true}; });
}

} // namespace korvane
