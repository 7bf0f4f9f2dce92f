#include "Vorrel/Shell/KeychainService.h"

#include "CommandCore/Commands.h"
#include "Support/Memory.h"
#include "Support/Text.h"
#include "Vorrel/Shell/AppLog.h"

namespace korvane {

namespace {

using Outcome = SecretStore::Outcome;

std::string_view nameOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::done: return "done";
    case Outcome::absent: return "absent";
    case Outcome::locked: return "locked";
    case Outcome::denied: return "denied";
    case Outcome::noService: return "no service";
    case Outcome::failed: return "failed";
    }
    return {};
}

/// Keeps in the log what the sentence for the user does not tell, and throws the sentence.
[[noreturn]] void fail(std::string_view operation, Outcome outcome, const AppError &error)
{
    AppLog::app.error("The secret store: " + std::string(operation) + ": " + std::string(nameOf(outcome)));
    throw error;
}

[[noreturn]] void deny(std::string_view operation, Outcome outcome)
{
    fail(operation, outcome, AppError(AppError::Kind::permission, "Keychain access was denied."));
}

} // namespace

struct KeychainService::State {
    State(const Executor &pool, SecretStore *store, std::string service) : actor(pool), store(store), service(std::move(service))
    {
    }

    SecretStore::Item item(const std::string &account) const { return {service, account}; }

    /// What `operation` on the store gives. Throws `Cancelled` when nobody waits for it any more.
    template <class Result, class Operation>
    Result ask(const std::stop_token &stop, Result withoutStore, const Operation &operation) const
    {
        const auto throwIfStopped = [&stop] {
            if (stop.stop_requested())
                throw Cancelled();
        };
        throwIfStopped();
        Result result = store ? operation(*store) : std::move(withoutStore);
        throwIfStopped();
        return result;
    }

    void set(const std::string &value, const std::string &account, const std::stop_token &stop) const
    {
        // First an update, so that the access rights of an item survive a new value.
        const Outcome updated =
            ask(stop, Outcome::noService, [&](SecretStore &secrets) { return secrets.update(item(account), value, stop); });
        if (updated == Outcome::done)
            return;
        if (updated != Outcome::absent)
            deny("update", updated);
        const Outcome added =
            ask(stop, Outcome::noService, [&](SecretStore &secrets) { return secrets.add(item(account), value, stop); });
        if (added != Outcome::done)
            fail("add", added, AppError(AppError::Kind::permission, "The secret could not be saved to Keychain."));
    }

    std::optional<std::string> get(const std::string &account, const std::stop_token &stop) const
    {
        SecretStore::Secret secret = ask(stop, SecretStore::Secret{Outcome::noService},
            [&](SecretStore &secrets) { return secrets.read(item(account), stop); });
        if (secret.outcome == Outcome::absent)
            return std::nullopt;
        if (secret.outcome != Outcome::done)
            deny("read", secret.outcome);
        if (isValidUTF8(secret.bytes))
            return std::move(secret.bytes);
        wipe(secret.bytes);
        return std::nullopt;
    }

    void remove(const std::string &account, const std::stop_token &stop) const
    {
        const Outcome removed =
            ask(stop, Outcome::noService, [&](SecretStore &secrets) { return secrets.remove(item(account), stop); });
        if (removed != Outcome::done && removed != Outcome::absent)
            fail("remove", removed, AppError(AppError::Kind::permission, "The Keychain item could not be removed."));
    }

    const Actor actor;
    SecretStore *const store;
    const std::string service;
};

KeychainService::KeychainService(Executor pool, SecretStore *store, std::string service) :
    state(std::make_shared<State>(pool, store, std::move(service)))
{
}

Task<void> KeychainService::set(std::string value, std::string account)
{
    auto work = [state = state, value = std::move(value), account = std::move(account)](std::stop_token stop) mutable {
        if (value.empty())
            return state->remove(account, stop);
        struct Wiping {
            ~Wiping() { wipe(secret); }
            std::string &secret;
        } const wiping{value};
        state->set(value, account, stop);
    };
    co_await runAside(state->actor.executor(), std::move(work));
}

Task<std::optional<std::string>> KeychainService::get(std::string account)
{
    auto work = [state = state, account = std::move(account)](std::stop_token stop) { return state->get(account, stop); };
    co_return co_await runAside(state->actor.executor(), std::move(work));
}

Task<void> KeychainService::deleteAccount(std::string account)
{
    auto work = [state = state, account = std::move(account)](std::stop_token stop) { state->remove(account, stop); };
    co_await runAside(state->actor.executor(), std::move(work));
}

} // namespace korvane
