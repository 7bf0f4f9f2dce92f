#include "Vorrel/FileIndex/IndexSnapshot.h"

#include "Support/Text.h"
#include "Vorrel/FileIndex/IndexRows.h"
#include "Vorrel/Store/Database.h"

#include <mutex>

namespace korvane {

namespace {

using Files = std::vector<IndexedFile>;

constexpr Milliseconds openAfterUse{5000};

constexpr char foldersSql[] =
    "SELECT path,name,is_directory,size,modified FROM file_index WHERE path>? AND is_directory=1 ORDER BY path LIMIT ?";
constexpr char filesSql[] =
    "SELECT path,name,is_directory,size,modified FROM file_index WHERE path>? AND is_directory=0 ORDER BY path LIMIT ?";
constexpr char childrenSql[] = "SELECT path,name,is_directory,size,modified FROM file_index WHERE parent=? ORDER BY path";

} // namespace

struct IndexSnapshot::State {
    State(Executor timers, Executor pool, std::string path, Clock &clock) :
        timers(std::move(timers)), pool(std::move(pool)), path(std::move(path)), clock(clock)
    {
    }

    const Executor timers, pool;
    const std::string path;
    Clock &clock;

    std::mutex mutex; // guards the rest
    std::shared_ptr<Database> database;
    int asking = 0; ///< Questions without an answer yet.
    bool wasAsked = false; ///< Since the wait for the end last looked.
};

namespace {

/// Counts a question as long as it lasts.
template <class State> class Asking {
public:
    explicit Asking(State &state) : state(state)
    {
        const std::scoped_lock lock(state.mutex);
        ++state.asking;
        state.wasAsked = true;
    }
    ~Asking()
    {
        const std::scoped_lock lock(state.mutex);
        --state.asking;
    }
    Asking(const Asking &) = delete;
    Asking &operator=(const Asking &) = delete;

private:
    State &state;
};

/// Closes the connection once nobody has asked for a while.
template <class State> Task<void> closeWhenUnused(std::weak_ptr<State> weak, Clock &clock)
{
    for (;;) {
        co_await clock.sleep(openAfterUse);
        const auto state = weak.lock();
        if (!state)
            co_return;
        const std::scoped_lock lock(state->mutex);
        if (!std::exchange(state->wasAsked, false) && state->asking == 0) {
            state->database = nullptr; // its last owner closes it
            co_return;
        }
    }
}

template <class State> Task<std::shared_ptr<Database>> connection(std::shared_ptr<State> state)
{
    {
        const std::scoped_lock lock(state->mutex);
        if (state->database)
            co_return state->database;
    }
    auto opened = co_await Database::open(state->pool, state->path, Database::Access::readOnly);
    const std::scoped_lock lock(state->mutex);
    // Another question may have opened one meanwhile.
    if (!state->database) {
        state->database = std::move(opened);
        spawnDetached(state->timers, closeWhenUnused(std::weak_ptr(state), state->clock));
    }
    co_return state->database;
}

template <class State> Task<Files> ask(std::shared_ptr<State> state, std::string sql, std::vector<SQLValue> values)
{
    if (state->path == ":memory:")
        co_return Files();
    const Asking asking(*state);
    const auto database = co_await connection(state);
    co_return co_await filesOf(database, {std::move(sql), std::move(values)});
}

} // namespace

IndexSnapshot::IndexSnapshot(Executor timers, Executor pool, std::string path, Clock &clock) :
    state(std::make_shared<State>(std::move(timers), std::move(pool), std::move(path), clock))
{
}

IndexSnapshot::~IndexSnapshot() = default;

// No coroutines themselves, so that a question outlives this object.

Task<Files> IndexSnapshot::folders(std::string after, int limit)
{
    return ask(state, foldersSql, {std::move(after), double(limit)});
}

Task<Files> IndexSnapshot::files(std::string after, int limit) { return ask(state, filesSql, {std::move(after), double(limit)}); }

Task<Files> IndexSnapshot::children(std::string parent) { return ask(state, childrenSql, {std::move(parent)}); }

bool IndexSnapshot::isOpen() const
{
    const std::scoped_lock lock(state->mutex);
    return state->database != nullptr;
}

} // namespace korvane
