#include "CommandCore/Commands.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace korvane;

namespace {

std::string friendly(auto error) { return AppError::friendly(std::make_exception_ptr(error)); }

} // namespace

TEST(CommandResults, TakeTheirKindFromThePrefixOfTheIdentifier)
{
    const struct {
        const char *id;
        ResultKind kind;
    } cases[] = {
        {"app:/Applications/Safari.app", ResultKind::application},
        {"file:/home/ada/a.txt", ResultKind::file},
        {"shortcut:Resize", ResultKind::shortcut},
        {"settings", ResultKind::command},
        {"app", ResultKind::command},
        {"apple", ResultKind::command},
        {"file", ResultKind::command},
        {"shortcuts", ResultKind::command},
        {"quicklink:1", ResultKind::command},
        {"my app:", ResultKind::command},
        {"", ResultKind::command},
    };
    for (const auto &c : cases)
        EXPECT_EQ(CommandResult({.id = c.id, .title = "Title"}).kind, c.kind) << c.id;
}

TEST(CommandResults, AKindThatIsAskedForWinsOverThePrefix)
{
    EXPECT_EQ(CommandResult({.id = "file:/a", .title = "a", .kind = ResultKind::other}).kind, ResultKind::other);
    EXPECT_EQ(CommandResult({.id = "calculator", .title = "4", .kind = ResultKind::file}).kind, ResultKind::file);
}

TEST(CommandResults, APreviewTextBecomesThePreview)
{
    const CommandResult result({.id = "clip", .title = "Clip", .previewText = "whole text"});
    EXPECT_EQ(result.preview, PreviewResource::text("whole text"));
    EXPECT_EQ(result.previewText, "whole text");
}

TEST(CommandResults, AnEmptyPreviewTextIsStillAPreview)
{
    EXPECT_EQ(CommandResult({.id = "clip", .title = "Clip", .previewText = ""}).preview, PreviewResource::text(""));
}

TEST(CommandResults, APreviewTextDoesNotOverrideAPreview)
{
    const CommandResult result({.id = "file:/a", .title = "a", .previewText = "text", .preview = PreviewResource::file("/a")});
    EXPECT_EQ(result.preview, PreviewResource::file("/a"));
}

TEST(CommandResults, WithoutPreviewAndTextHaveNone) { EXPECT_EQ(CommandResult({.id = "a", .title = "A"}).preview, std::nullopt); }

TEST(CommandResults, TheDefaultsMakeABareRow)
{
    const CommandResult result({.id = "a", .title = "A", .icon = CommandIcon::symbol("gear")});
    EXPECT_EQ(result.subtitle, std::nullopt);
    EXPECT_TRUE(result.keywords.empty());
    EXPECT_TRUE(result.actions.empty());
    EXPECT_EQ(result.previewText, std::nullopt);
    EXPECT_FALSE(result.keepsOpen);
    EXPECT_EQ(result.icon, CommandIcon::symbol("gear"));
    EXPECT_NE(result.icon, CommandIcon::file("gear"));
}

TEST(CommandActions, TheDefaultsAreADirectNormalActionThatInheritsItsDismissal)
{
    const CommandAction action{.id = "open", .title = "Open"};
    EXPECT_EQ(action.shortcut, std::nullopt);
    EXPECT_EQ(action.key, std::nullopt);
    EXPECT_EQ(action.dismissal, ActionDismissal::inherited);
    EXPECT_EQ(action.flow, ActionFlow::direct());
    EXPECT_EQ(action.role, ActionRole::normal);
}

TEST(CommandActions, FlowsCarryWhatTheyNeed)
{
    EXPECT_EQ(ActionFlow::openWith("/a").path, "/a");
    EXPECT_NE(ActionFlow::openWith("/a"), ActionFlow::preview("/a"));
    const auto input = ActionFlow::applicationInput("/app", {"--diff"}, true);
    EXPECT_EQ(input.kind, ActionFlow::Kind::applicationInput);
    EXPECT_EQ(input.arguments, std::vector<std::string>{"--diff"});
    EXPECT_TRUE(input.folders);
    EXPECT_EQ(ActionFlow::argumentInput().kind, ActionFlow::Kind::arguments);
}

TEST(CommandWords, AreTheOnesThatTheUserSees)
{
    EXPECT_EQ(rawValue(ActionKey::preview), "preview");
    EXPECT_EQ(rawValue(ActionKey::reveal), "reveal");
    EXPECT_EQ(rawValue(ActionKey::copyPath), "copyPath");
    EXPECT_EQ(label(ActionKey::preview), "⌘ Y");
    EXPECT_EQ(label(ActionKey::reveal), "⌘ ↵");
    EXPECT_EQ(label(ActionKey::copyPath), "⌘ ⇧ C");
    EXPECT_EQ(rawValue(ActionRole::normal), "normal");
    EXPECT_EQ(rawValue(ActionRole::write), "write");
    EXPECT_EQ(rawValue(ActionRole::destructive), "destructive");
}

TEST(CommandWords, ListKindsAndCategoriesInTheirOrder)
{
    std::vector<std::string_view> kinds, categories;
    for (const auto kind : allResultKinds)
        kinds.push_back(rawValue(kind));
    for (const auto category : allSearchCategories)
        categories.push_back(rawValue(category));
    EXPECT_EQ(kinds, (std::vector<std::string_view>{"Applications", "Commands", "Files", "Shortcuts", "Results"}));
    EXPECT_EQ(categories, (std::vector<std::string_view>{"All", "Applications", "Files", "Shortcuts"}));
}

TEST(SearchRequests, AreEqualByQueryAndCategory)
{
    const SearchRequest request{"saf", SearchCategory::files};
    EXPECT_EQ(request, (SearchRequest{"saf", SearchCategory::files}));
    EXPECT_NE(request, (SearchRequest{"saf", SearchCategory::all}));
    EXPECT_NE(request, (SearchRequest{"Saf", SearchCategory::files}));
}

TEST(StaticCommands, GiveTheSameRowEachTime)
{
    const StaticCommand command({.id = "settings", .title = "Open Settings"});
    EXPECT_EQ(command.id(), "settings");
    const auto row = command.result({});
    EXPECT_EQ(row->title, "Open Settings");
    EXPECT_EQ(command.result({}), row);
}

TEST(AppErrors, SayTheirSentenceWhateverTheirKind)
{
    using Kind = AppError::Kind;
    for (const auto kind : {Kind::recoverable, Kind::permission, Kind::network, Kind::configuration, Kind::toolExecution,
             Kind::database, Kind::mcp}) {
        const AppError error(kind, "Could not save local data.");
        EXPECT_EQ(error.kind(), kind);
        EXPECT_EQ(error.errorDescription(), "Could not save local data.");
        EXPECT_STREQ(error.what(), "Could not save local data.");
        EXPECT_EQ(friendly(error), "Could not save local data.");
    }
}

TEST(AppErrors, ACancellationHasItsOwnSentence) { EXPECT_EQ(friendly(Cancelled()), "Operation cancelled."); }

TEST(AppErrors, ForeignWordingNeverReachesTheUser)
{
    constexpr auto sentence = "The operation could not be completed. Please try again or check permissions.";
    EXPECT_EQ(friendly(std::runtime_error("errno 13")), sentence);
    EXPECT_EQ(friendly(FileAccessFailure(FileAccessFailure::Reason::missing)), sentence);
    EXPECT_EQ(friendly(17), sentence);
}
