#include "CommandCore/CommandRegistry.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <map>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

std::shared_ptr<const Command> command(std::string id, std::string title = "Title")
{
    return std::make_shared<StaticCommand>(CommandResultFields{.id = std::move(id), .title = std::move(title)});
}

CommandRegistry::Commands family(const Strings &ids, const std::string &title = "Title")
{
    CommandRegistry::Commands commands;
    for (const auto &id : ids)
        commands.push_back(command(id, title));
    return commands;
}

/// The rows in an order that does not depend on the registry's.
Strings rows(const CommandRegistry &registry)
{
    Strings texts;
    for (const auto &row : registry.results())
        texts.push_back(row->id + " " + row->title);
    std::ranges::sort(texts);
    return texts;
}

/// What the configuration error of `work` says; empty when it throws none.
std::string refusal(auto work)
{
    try {
        work();
    } catch (const AppError &error) {
        EXPECT_EQ(error.kind(), AppError::Kind::configuration);
        return error.errorDescription();
    }
    return {};
}

struct CommandRegistryTest : testing::Test {
    CommandRegistryTest()
    {
        registry.registerCommand(command("settings", "Open Settings"));
        registry.replace("app:", family({"app:b", "app:a"}, "old"));
    }

    const Strings initial{"app:a old", "app:b old", "settings Open Settings"};
    CommandRegistry registry;
};

} // namespace

TEST_F(CommandRegistryTest, IsEmptyAtFirst) { EXPECT_TRUE(CommandRegistry().results().empty()); }

TEST_F(CommandRegistryTest, HasOneRowForEachCommand) { EXPECT_EQ(rows(registry), initial); }

TEST_F(CommandRegistryTest, AKnownIdentifierIsRefusedAndTheOldCommandStays)
{
    EXPECT_EQ(refusal([&] { registry.registerCommand(command("settings", "Other")); }), "Duplicate command identifier.");
    EXPECT_EQ(rows(registry), initial);
}

TEST_F(CommandRegistryTest, IdentifiersDifferByCase)
{
    registry.registerCommand(command("Settings", "Other"));
    EXPECT_EQ(registry.results().size(), 4u);
}

TEST_F(CommandRegistryTest, AFamilyIsSwappedWhole)
{
    registry.replace("app:", family({"app:c", "app:b"}, "new"));
    EXPECT_EQ(rows(registry), (Strings{"app:b new", "app:c new", "settings Open Settings"}));
}

TEST_F(CommandRegistryTest, ACommandOfAnotherFamilyIsRefusedAndTheOldFamilyStays)
{
    EXPECT_EQ(refusal([&] {
        registry.replace("app:", family({"app:c", "file:a"}, "new"));
    }),
        "Invalid or duplicate command identifier.");
    EXPECT_EQ(rows(registry), initial);
}

TEST_F(CommandRegistryTest, TwoCommandsOfOneIdentifierAreRefusedAndTheOldFamilyStays)
{
    EXPECT_EQ(refusal([&] {
        registry.replace("app:", family({"app:c", "app:d", "app:c"}, "new"));
    }),
        "Invalid or duplicate command identifier.");
    EXPECT_EQ(rows(registry), initial);
}

TEST_F(CommandRegistryTest, ThePrefixIncludesItsColon)
{
    registry.registerCommand(command("apple", "not an application"));
    registry.replace("app:", {});
    EXPECT_EQ(rows(registry), (Strings{"apple not an application", "settings Open Settings"}));
    EXPECT_NE(refusal([&] { registry.replace("app:", family({"app"})); }), "");
}

TEST_F(CommandRegistryTest, AnEmptyFamilyRemovesTheOldOne)
{
    registry.replace("app:", {});
    EXPECT_EQ(rows(registry), Strings{"settings Open Settings"});
    registry.replace("quicklink:", {});
    EXPECT_EQ(rows(registry), Strings{"settings Open Settings"});
}

TEST_F(CommandRegistryTest, AnEmptyPrefixMeansEverything)
{
    registry.replace("", family({"only"}));
    EXPECT_EQ(rows(registry), Strings{"only Title"});
}

TEST_F(CommandRegistryTest, ARemovedIdentifierMayComeBack)
{
    registry.replace("app:", {});
    registry.registerCommand(command("app:a", "again"));
    EXPECT_EQ(registry.result("app:a")->title, "again");
}

TEST_F(CommandRegistryTest, GivesTheRowOfOneCommand)
{
    EXPECT_EQ(registry.result("app:b")->title, "old");
    EXPECT_EQ(registry.result("app:"), nullptr);
    EXPECT_EQ(registry.result("zzz"), nullptr);
    EXPECT_EQ(registry.result(""), nullptr);
}

TEST_F(CommandRegistryTest, AsksEachCommandAnewForItsRow)
{
    struct Counting final : Command {
        const std::string &id() const override { return name; }
        Row result(const CommandContext &) const override { return makeRow({.id = name, .title = std::to_string(++asked)}); }
        std::string name = "counting";
        mutable int asked = 0;
    };
    CommandRegistry own;
    own.registerCommand(std::make_shared<Counting>());
    EXPECT_EQ(own.results().front()->title, "1");
    EXPECT_EQ(own.results().front()->title, "2");
}

RC_GTEST_PROP(CommandRegistryLaws, BehavesAsADictionaryWithAllOrNothingChanges, ())
{
    const auto id = rc::gen::map(rc::gen::container<std::string>(rc::gen::elementOf(std::string("ab:"))),
        [](std::string text) { return text.substr(0, 4); });
    CommandRegistry registry;
    std::map<std::string, std::string> model;
    const int steps = *rc::gen::inRange(1, 12);
    for (int step = 0; step < steps; ++step) {
        const auto title = std::to_string(step);
        if (*rc::gen::arbitrary<bool>()) {
            const std::string name = *id;
            const bool refused = !refusal([&] { registry.registerCommand(command(name, title)); }).empty();
            RC_ASSERT(refused == !model.emplace(name, title).second);
            continue;
        }
        const std::string prefix = (*id).substr(0, 2);
        Strings ids;
        for (const auto &each : *rc::gen::container<Strings>(id))
            ids.push_back(*rc::gen::weightedElement<bool>({{9, true}, {1, false}}) ? prefix + each : each);
        auto copy = model;
        std::erase_if(copy, [&](const auto &entry) { return entry.first.starts_with(prefix); });
        const bool valid = std::ranges::all_of(
            ids, [&](const auto &name) { return name.starts_with(prefix) && copy.emplace(name, title).second; });
        RC_ASSERT(refusal([&] { registry.replace(prefix, family(ids, title)); }).empty() == valid);
        if (valid)
            model = std::move(copy);
    }
    Strings expected;
    for (const auto &[name, title] : model)
        expected.push_back(name + " " + title);
    std::ranges::sort(expected);
    RC_ASSERT(rows(registry) == expected);
}
