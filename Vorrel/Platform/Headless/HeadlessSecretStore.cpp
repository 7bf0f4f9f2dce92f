#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"

#include <condition_variable>

namespace korvane {

SecretStore::Secret HeadlessSecretStore::read(const Item &item, std::stop_token stop)
{
    std::unique_lock lock(mutex);
    note("read", item);
    if (readsHang) {
        std::condition_variable_any stopped;
        stopped.wait(lock, stop, [] { return false; });
        return {Outcome::failed};
    }
    if (readOutcome)
        return {*readOutcome};
    const auto found = _items.find(item.account);
    return found == _items.end() ? Secret{Outcome::absent} : Secret{Outcome::done, found->second};
}

SecretStore::Outcome HeadlessSecretStore::update(const Item &item, const std::string &bytes, std::stop_token)
{
    const std::scoped_lock lock(mutex);
    note("update", item);
    if (updateOutcome)
        return *updateOutcome;
    const auto found = _items.find(item.account);
    if (found == _items.end())
        return Outcome::absent;
    found->second = bytes;
    return Outcome::done;
}

SecretStore::Outcome HeadlessSecretStore::add(const Item &item, const std::string &bytes, std::stop_token)
{
    const std::scoped_lock lock(mutex);
    note("add", item);
    if (addOutcome)
        return *addOutcome;
    return _items.emplace(item.account, bytes).second ? Outcome::done : Outcome::failed;
}

SecretStore::Outcome HeadlessSecretStore::remove(const Item &item, std::stop_token)
{
    const std::scoped_lock lock(mutex);
    note("remove", item);
    if (removeOutcome)
        return *removeOutcome;
    return _items.erase(item.account) > 0 ? Outcome::done : Outcome::absent;
}

std::map<std::string, std::string> HeadlessSecretStore::items() const
{
    const std::scoped_lock lock(mutex);
    return _items;
}

void HeadlessSecretStore::keep(const std::string &account, const std::string &bytes)
{
    const std::scoped_lock lock(mutex);
    _items[account] = bytes;
}

std::vector<std::string> HeadlessSecretStore::requests() const
{
    const std::scoped_lock lock(mutex);
    return _requests;
}

void HeadlessSecretStore::note(const char *what, const Item &item)
{
    _requests.push_back(std::string(what) + " " + item.service + "/" + item.account);
}

} // namespace korvane
