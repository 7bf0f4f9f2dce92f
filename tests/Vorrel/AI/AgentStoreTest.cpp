#include "Vorrel/AI/AgentStore.h"

#include "CommandCore/Commands.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/HeadlessDesktop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

using namespace korvane;
using namespace korvane::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string notUsable = "Enter a name, model, and prompt under 100 KB.";
const std::string saved = "Agent saved. Search its name in the command window.";

/// A loader that answers when the test says so.
class HeldLoader final : public SkillLoader {
public:
    using SkillLoader::SkillLoader;
    Task<Scan> scan(std::vector<std::string> roots) override
    {
        asked.push_back(std::move(roots));
        std::function<void(Continuation<Scan>)> begin = [this](Continuation<Scan> scanned) { waiting.push_back(scanned); };
        co_return co_await suspend<Scan>(std::move(begin));
    }
    std::vector<std::vector<std::string>> asked;
    std::vector<Continuation<Scan>> waiting;
};

struct AgentStoreTest : testing::Test {
    AgentStoreTest()
    {
        desktop.folders.home = folder.path;
        store = storeWith(std::make_shared<SkillLoader>(desktop.platform().detached));
    }
    ~AgentStoreTest() override { desktop.loop.shutDown(); }

    std::shared_ptr<AgentStore> storeWith(std::shared_ptr<SkillLoader> loader)
    {
        return std::make_shared<AgentStore>(AgentStore::Parts{.mainThread = desktop.loop.executor(),
            .folders = desktop.folders,
            .tools = registry,
            .repository = repository,
            .loader = std::move(loader)});
    }
    void settle() { desktop.loop.runUntilIdle(); }
    std::vector<Agent> stored() { return await(desktop.loop, repository.load()); }
    void keep(const Agent &agent) { await(desktop.loop, repository.save(agent)); }
    void execute(const std::string &sql) { await(desktop.loop, database->execute(sql)); }
    /// What keeping the Agent is refused with; empty when it is kept.
    std::string refusalOf(const Agent &agent)
    {
        try {
            keep(agent);
        } catch (const AppError &error) {
            return error.kind() == AppError::Kind::configuration ? error.errorDescription() : "another kind";
        }
        return "";
    }

    DiskFolder folder;
    HeadlessDesktop desktop;
    std::shared_ptr<Database> database =
        await(desktop.loop, Database::open(desktop.loop.executor(), ":memory:", Database::Access::readWrite));
    AgentRepository repository{database};
    ToolRegistry registry{[](const ToolDefinition &, const JSONValue &) -> Task<void> { co_return; }};
    std::shared_ptr<AgentStore> store;
};

Agent usable(std::string id = "A1", std::string name = "Harbour master")
{
    return {.id = std::move(id), .name = std::move(name)};
}

} // namespace

// The JSON of an Agent

TEST(AgentJSON, HasExactlyItsSevenKeys)
{
    const Agent agent{.id = "A1",
        .name = "N",
        .icon = "anchor",
        .systemPrompt = "P",
        .model = "m",
        .tools = {"clipboard.read"},
        .skills = {"/s/SKILL.md", "/t/SKILL.md"}};
    const auto json =
        JSONValue::parse(R"({"id":"A1","name":"N","icon":"anchor","systemPrompt":"P","model":"m","tools":["clipboard.read"],)"
                         R"("skills":["/s/SKILL.md","/t/SKILL.md"]})");
    EXPECT_EQ(agent.json(), json);
    EXPECT_EQ(Agent::fromJSON(json), agent);
}

TEST(AgentJSON, EveryKeyIsRequiredWithItsType)
{
    const JSONValue whole = usable().json();
    const auto isRefused = [](JSONValue::Object members) {
        try {
            Agent::fromJSON(JSONValue(std::move(members)));
        } catch (const JSONError &) {
            return true;
        }
        return false;
    };
    EXPECT_FALSE(isRefused(*whole.object()));
    for (const auto &[key, value] : *whole.object()) {
        auto members = *whole.object();
        members.erase(key);
        EXPECT_TRUE(isRefused(members)) << "without " << key;
        for (const JSONValue &other :
            {JSONValue(), JSONValue(1), JSONValue(JSONValue::Array{1}), JSONValue(JSONValue::Object{})}) {
            members.insert_or_assign(key, other);
            EXPECT_TRUE(isRefused(members)) << key << " as " << other.encodedString();
        }
    }
    auto more = *whole.object();
    more.emplace("later", 1);
    EXPECT_FALSE(isRefused(more)) << "what a later version adds";
    EXPECT_THROW(Agent::fromJSON(JSONValue(JSONValue::Array{})), JSONError);
}

// The repository

TEST_F(AgentStoreTest, AgentsAreLoadedInTheOrderOfTheirIdentifiers)
{
    EXPECT_THAT(stored(), IsEmpty());
    keep(usable("B", "first"));
    keep(usable("A", "second"));
    EXPECT_THAT(stored(), ElementsAre(usable("A", "second"), usable("B", "first")));
}

TEST_F(AgentStoreTest, SavingAnIdentifierTwiceUpdatesTheOneRow)
{
    keep(usable("A", "old"));
    Agent changed = usable("A", "new");
    changed.tools = {"system.lock"};
    keep(changed);
    EXPECT_THAT(stored(), ElementsAre(changed));
}

TEST_F(AgentStoreTest, ANameOfBlanksIsRefusedAndOneWithBlanksAroundItIsStoredWithThem)
{
    EXPECT_EQ(refusalOf(usable("A", "")), notUsable);
    EXPECT_EQ(refusalOf(usable("A", " \t\n\u00A0")), notUsable);
    Agent withoutModel = usable();
    withoutModel.model = " \r\n";
    EXPECT_EQ(refusalOf(withoutModel), notUsable);
    EXPECT_THAT(stored(), IsEmpty());
    keep(usable("A", "  Pilot "));
    EXPECT_EQ(stored().at(0).name, "  Pilot ");
}

TEST_F(AgentStoreTest, APromptOfExactly100000BytesIsSavedAndALongerOneRefused)
{
    Agent agent = usable();
    agent.systemPrompt = std::string(100'000, 'x');
    EXPECT_EQ(refusalOf(agent), "");
    EXPECT_EQ(stored().at(0), agent);
    agent.systemPrompt += 'x';
    EXPECT_EQ(refusalOf(agent), notUsable);
    agent.systemPrompt.clear();
    for (int i = 0; i < 100'000; ++i)
        agent.systemPrompt += "潮";
    EXPECT_EQ(refusalOf(agent), notUsable) << "bytes count, not characters";
    agent.systemPrompt.clear();
    EXPECT_EQ(refusalOf(agent), "") << "it may be empty";
}

TEST_F(AgentStoreTest, OneCorruptRowMakesTheWholeListFailToLoad)
{
    keep(usable());
    execute("INSERT INTO agents(id,configuration) VALUES('Z','{\"id\":\"Z\"}')");
    EXPECT_THROW(stored(), JSONError);
    execute("UPDATE agents SET configuration='no JSON' WHERE id='Z'");
    EXPECT_THROW(stored(), JSONError);
}

TEST_F(AgentStoreTest, ARowWithoutAConfigurationIsMissingIt)
{
    execute("DROP TABLE agents");
    execute("CREATE TABLE agents(id TEXT PRIMARY KEY,configuration TEXT)");
    execute("INSERT INTO agents(id) VALUES('Z')");
    try {
        stored();
        FAIL() << "loaded";
    } catch (const AppError &error) {
        EXPECT_EQ(error, AppError(AppError::Kind::database, "Agent configuration is missing."));
    }
}

// The store

TEST_F(AgentStoreTest, ANewDraftHasAnIdentifierOfItsOwnAndNoTools)
{
    const Agent first = store->draft;
    EXPECT_TRUE(std::regex_match(first.id, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"))) << first.id;
    EXPECT_EQ(
        first, (Agent{.id = first.id, .name = "New Agent", .icon = "sparkles", .systemPrompt = "", .model = "gpt-4.1-mini"}));
    EXPECT_EQ(store->message.get(), std::nullopt);
    store->message = std::string("earlier");
    store->newAgent();
    EXPECT_NE(store->draft->id, first.id);
    EXPECT_EQ(store->draft->name, "New Agent");
    EXPECT_EQ(store->message.get(), std::nullopt);
}

TEST_F(AgentStoreTest, LoadingTellsWhoeverListsTheAgents)
{
    keep(usable());
    std::vector<std::size_t> told;
    store->onChange = [&] { told.push_back(store->agents().size()); };
    await(desktop.loop, store->load());
    EXPECT_THAT(told, ElementsAre(1U));
    EXPECT_THAT(store->agents(), ElementsAre(usable()));
}

TEST_F(AgentStoreTest, ASavedDraftIsStoredListedAndSaidToBe)
{
    Agent draft = store->draft;
    draft.name = "Pilot";
    store->draft = draft;
    int told = 0;
    store->onChange = [&] { ++told; };
    store->save();
    EXPECT_TRUE(store->working);
    settle();
    EXPECT_FALSE(store->working);
    EXPECT_EQ(store->message.get(), saved);
    EXPECT_THAT(store->agents(), ElementsAre(draft));
    EXPECT_THAT(stored(), ElementsAre(draft));
    EXPECT_EQ(told, 1);
}

TEST_F(AgentStoreTest, OfTwoQuickSavesTheSecondDoesNothing)
{
    const Agent first = store->draft;
    store->save();
    store->newAgent();
    store->save();
    store->scanSkills();
    settle();
    EXPECT_THAT(stored(), ElementsAre(first));
    EXPECT_EQ(store->message.get(), saved);
    EXPECT_THAT(store->warnings.get(), IsEmpty());
}

TEST_F(AgentStoreTest, ADraftThatCannotBeUsedIsToldAndNotStored)
{
    Agent draft = store->draft;
    draft.name = " ";
    store->draft = draft;
    store->save();
    settle();
    EXPECT_EQ(store->message.get(), notUsable);
    EXPECT_FALSE(store->working);
    EXPECT_EQ(store->draft.get(), draft) << "what was entered stays";
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(AgentStoreTest, ALoadThatFailsAfterTheSaveShowsAsAFailedSaveThoughTheRowIsWritten)
{
    execute("INSERT INTO agents(id,configuration) VALUES('Z','broken')");
    int told = 0;
    store->onChange = [&] { ++told; };
    store->save();
    settle();
    EXPECT_EQ(store->message.get(), "The operation could not be completed. Please try again or check permissions.");
    EXPECT_FALSE(store->working);
    EXPECT_EQ(told, 0);
    execute("DELETE FROM agents WHERE id='Z'");
    EXPECT_EQ(stored().size(), 1U);
}

TEST_F(AgentStoreTest, AStoreThatRefusesToWriteIsToldInItsOwnWords)
{
    execute("CREATE TRIGGER refusing BEFORE INSERT ON agents BEGIN SELECT RAISE(ABORT,'no'); END");
    store->save();
    settle();
    EXPECT_EQ(store->message.get(), "Could not save local data.");
}

TEST_F(AgentStoreTest, AScanShowsWhatItFoundAndSaysHowMuch)
{
    folder.file(".config/korvane/skills/a/SKILL.md", "---\nname: A\ndescription: B\n---\nC");
    folder.file(".claude/skills/b/SKILL.md", "---\nname: B\ndescription: B\n---\nC");
    folder.file(".config/agents/skills/c/SKILL.md", "nothing");
    store->scanSkills();
    EXPECT_TRUE(store->working);
    settle();
    EXPECT_FALSE(store->working);
    EXPECT_EQ(store->skills->size(), 2U);
    EXPECT_THAT(store->warnings.get(), ElementsAre("c: SKILL.md needs name and description frontmatter."));
    EXPECT_EQ(
        store->message.get(), "Found 2 skills. Select only skills you trust; their instructions are sent with Agent requests.");
}

TEST_F(AgentStoreTest, NothingElseBeginsWhileAScanGoesOn)
{
    const auto loader = std::make_shared<HeldLoader>(desktop.platform().detached);
    store = storeWith(loader);
    store->scanSkills();
    store->scanSkills();
    store->save();
    settle();
    EXPECT_THAT(loader->asked, ElementsAre(SkillLocations::roots(desktop.folders)));
    EXPECT_TRUE(store->working);
    loader->waiting.at(0).resume({});
    settle();
    EXPECT_FALSE(store->working);
    EXPECT_THAT(stored(), IsEmpty());
    store->scanSkills();
    settle();
    EXPECT_EQ(loader->asked.size(), 2U);
}

TEST_F(AgentStoreTest, AStoreMayGoAwayWhileItWorks)
{
    const auto loader = std::make_shared<HeldLoader>(desktop.platform().detached);
    store = storeWith(loader);
    store->scanSkills();
    settle();
    std::weak_ptr<AgentStore> weak = store;
    store.reset();
    EXPECT_TRUE(weak.expired());
    loader->waiting.at(0).resume({});
    settle();

    store = storeWith(loader);
    weak = store;
    store->save();
    store.reset();
    settle();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(stored().size(), 1U) << "what was pressed is carried out";
}

TEST_F(AgentStoreTest, EveryChangeIsToldToWhoObserves)
{
    int changes = 0;
    const auto subscriptions = store->observe([&] { ++changes; });
    store->newAgent();
    EXPECT_EQ(changes, 1) << "the draft";
    store->save();
    EXPECT_EQ(changes, 2) << "working";
    settle();
    EXPECT_EQ(changes, 5) << "the list, the message, no longer working";
}
