#include "Vorrel/Shell/KeychainService.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Shell/AppLog.h"
#include "tests/support/Await.h"
#include "tests/support/Soon.h"

#include <gmock/gmock.h>

#include <map>

using namespace korvane;
using namespace korvane::test;
using Outcome = SecretStore::Outcome;
using Strings = std::vector<std::string>;
using Items = std::map<std::string, std::string>;

namespace {

struct Keychain : testing::Test {
    Keychain()
    {
        AppLog::observe([this](std::string_view, AppLog::Level, std::string_view message) { log.emplace_back(message); });
    }
    ~Keychain() override { AppLog::observe({}); }

    /// The sentence of the permission error that `task` ends with; empty when it ends well.
    template <class T> std::string refusal(Task<T> task)
    {
        try {
            await(loop, std::move(task));
        } catch (const AppError &error) {
            EXPECT_EQ(error.kind(), AppError::Kind::permission);
            return error.errorDescription();
        }
        return {};
    }

    MainLoop loop;
    HeadlessSecretStore store;
    KeychainService service{loop.executor(), &store};
    Strings log;
};

constexpr Outcome refusals[] = {Outcome::locked, Outcome::denied, Outcome::noService, Outcome::failed};

} // namespace

TEST_F(Keychain, SettingAnEmptyValueOnAnAbsentAccountSucceeds)
{
    await(loop, service.set("", "ada"));
    EXPECT_EQ(store.requests(), (Strings{"remove dev.korvane.vorrel/ada"}));
}

TEST_F(Keychain, SettingAnEmptyValueRemovesTheSecret)
{
    store.keep("ada", "old");
    await(loop, service.set("", "ada"));
    EXPECT_EQ(store.items(), Items());
}

TEST_F(Keychain, DeletingAnAbsentAccountSucceeds)
{
    await(loop, service.deleteAccount("ada"));
    EXPECT_EQ(store.requests(), (Strings{"remove dev.korvane.vorrel/ada"}));
}

TEST_F(Keychain, GettingAnAbsentAccountGivesNoneAndNoError)
{
    EXPECT_EQ(await(loop, service.get("ada")), std::nullopt);
    EXPECT_EQ(log, Strings());
}

TEST_F(Keychain, ASecondValueReplacesTheFirstAndKeepsOneItem)
{
    await(loop, service.set("one", "ada"));
    await(loop, service.set("two", "ada"));
    EXPECT_EQ(await(loop, service.get("ada")), "two");
    EXPECT_EQ(store.items(), (Items{{"ada", "two"}}));
}

TEST_F(Keychain, ANewItemIsAddedOnlyOnceAnUpdateFoundNone)
{
    await(loop, service.set("one", "ada"));
    await(loop, service.set("two", "ada"));
    EXPECT_EQ(store.requests(),
        (Strings{"update dev.korvane.vorrel/ada", "add dev.korvane.vorrel/ada", "update dev.korvane.vorrel/ada"}));
}

TEST_F(Keychain, BytesThatAreNoTextCountAsNone)
{
    store.keep("ada", "\xff\xfe");
    EXPECT_EQ(await(loop, service.get("ada")), std::nullopt);
}

TEST_F(Keychain, EveryOtherOutcomeOfAReadIsADenial)
{
    store.keep("ada", "old");
    for (const Outcome outcome : refusals) {
        store.readOutcome = outcome;
        EXPECT_EQ(refusal(service.get("ada")), "Keychain access was denied.");
    }
}

TEST_F(Keychain, AnUpdateThatFailsIsADenialAndNothingIsAdded)
{
    for (const Outcome outcome : refusals) {
        store.updateOutcome = outcome;
        EXPECT_EQ(refusal(service.set("new", "ada")), "Keychain access was denied.");
    }
    EXPECT_EQ(store.requests(), Strings(4, "update dev.korvane.vorrel/ada"));
}

TEST_F(Keychain, AnItemThatCannotBeAddedCouldNotBeSaved)
{
    for (const Outcome outcome : {Outcome::absent, Outcome::locked, Outcome::denied, Outcome::noService, Outcome::failed}) {
        store.addOutcome = outcome;
        EXPECT_EQ(refusal(service.set("new", "ada")), "The secret could not be saved to Keychain.");
    }
}

TEST_F(Keychain, AnItemThatCannotBeRemovedIsToldAlsoForAnEmptyValue)
{
    for (const Outcome outcome : refusals) {
        store.removeOutcome = outcome;
        EXPECT_EQ(refusal(service.deleteAccount("ada")), "The Keychain item could not be removed.");
        EXPECT_EQ(refusal(service.set("", "ada")), "The Keychain item could not be removed.");
    }
}

TEST_F(Keychain, WithoutAStoreEverythingIsRefused)
{
    KeychainService none(loop.executor(), nullptr);
    EXPECT_EQ(refusal(none.get("ada")), "Keychain access was denied.");
    EXPECT_EQ(refusal(none.set("new", "ada")), "Keychain access was denied.");
    EXPECT_EQ(refusal(none.deleteAccount("ada")), "The Keychain item could not be removed.");
}

TEST_F(Keychain, TheLogTellsTheFinerStateAndNeitherAccountNorSecret)
{
    store.readOutcome = Outcome::locked;
    store.updateOutcome = Outcome::noService;
    store.removeOutcome = Outcome::denied;
    refusal(service.get("account-of-ada"));
    refusal(service.set("marker-secret", "account-of-ada"));
    refusal(service.deleteAccount("account-of-ada"));
    EXPECT_EQ(log,
        (Strings{"The secret store: read: locked", "The secret store: update: no service", "The secret store: remove: denied"}));
}

TEST_F(Keychain, ACancelledReaderGoesOnWhileTheStoreWaitsForTheUser)
{
    ThreadPool pool(1);
    store.readsHang = true;
    KeychainService waiting(pool.executor(), &store);
    Begun<std::optional<std::string>> read(loop, waiting.get("ada"));
    ASSERT_TRUE(soon(loop, [&] { return store.requests().size() == 1; }));
    read.cancel();
    EXPECT_THROW(read.result(), Cancelled);
    pool.join(); // ends because the store was stopped
    EXPECT_EQ(log, Strings()) << "that nobody waits any more is no failure";
}

TEST_F(Keychain, WhatWasCancelledBeforeItsTurnChangesNothing)
{
    ThreadPool pool(1);
    store.readsHang = true;
    KeychainService waiting(pool.executor(), &store);
    Begun<std::optional<std::string>> read(loop, waiting.get("ada"));
    ASSERT_TRUE(soon(loop, [&] { return store.requests().size() == 1; }));
    Begun<void> write(loop, waiting.set("new", "ada"));
    loop.runUntilIdle();
    write.cancel();
    EXPECT_THROW(write.result(), Cancelled);
    read.cancel();
    EXPECT_THROW(read.result(), Cancelled);
    pool.join();
    EXPECT_EQ(store.requests(), (Strings{"read dev.korvane.vorrel/ada"}));
}

TEST(KeychainThreads, OperationsFromSeveralThreadsDoNotInterleave)
{
    HeadlessSecretStore store;
    ThreadPool pool(4), callers(4);
    KeychainService service(pool.executor(), &store);
    for (int i = 0; i < 100; ++i)
        spawnDetached(callers.executor(), service.set("value " + std::to_string(i), "ada"));
    callers.join();
    pool.join();
    const auto requests = store.requests();
    EXPECT_EQ(std::ranges::count(requests, "add dev.korvane.vorrel/ada"), 1)
        << "no update came between an update and its addition";
    EXPECT_EQ(store.items().size(), 1u);
}
