#include "Vorrel/Launch/ApplicationService.h"

#include <gtest/gtest.h>

using namespace korvane;
using Actions = std::vector<AppLaunchAction>;

namespace {

const Actions chrome{
    {"new-window", "New Window", {"--new-window"}}, {"incognito", "New Incognito Window", {"--incognito", "--new-window"}}};
const Actions edge{
    {"new-window", "New Window", {"--new-window"}}, {"inprivate", "New InPrivate Window", {"--inprivate", "--new-window"}}};
const Actions brave{
    {"new-window", "New Window", {"--new-window"}}, {"private", "New Private Window", {"--incognito", "--new-window"}}};
const Actions code{{"new-window", "New Window", {"--new-window"}}, {"folder", "Open Folder…", {"--new-window"}},
    {"diff", "Diff Two Files", {"--diff"}}};
const Actions codium{{"new-window", "New Window", {"--new-window"}}};

} // namespace

TEST(AppActionCatalogTest, KnowsTheActionsOfEachIdentifier)
{
    const struct {
        const char *why, *identifier;
        Actions actions;
    } cases[] = {
        {"the browser's bundle, and its Flatpak", "com.google.Chrome", chrome},
        {"the same browser's package", "google-chrome", chrome},
        {"the browser's bundle", "com.microsoft.edgemac", edge},
        {"the same browser's package", "microsoft-edge", edge},
        {"the same browser's Flatpak", "com.microsoft.Edge", edge},
        {"the browser's bundle, and its Flatpak", "com.brave.Browser", brave},
        {"the same browser's package", "brave-browser", brave},
        {"the editor's bundle", "com.microsoft.VSCode", code},
        {"the same editor's package", "code", code},
        {"the same editor's Flatpak", "com.visualstudio.code", code},
        {"its free build has one action", "com.vscodium.vscodium", codium},
        {"the free build's package", "codium", codium},
        {"the free build's Flatpak", "com.vscodium.codium", codium},
        {"unknown", "org.example", {}},
        {"identifiers are compared exactly", "COM.GOOGLE.CHROME", {}},
        {"no identifier", "", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.identifier) + ": " + c.why);
        EXPECT_EQ(AppActionCatalog::actions(c.identifier), c.actions);
    }
}

TEST(AppActionCatalogTest, TellsTheEditorFromItsFreeBuild)
{
    for (const auto id : {"com.microsoft.VSCode", "code", "com.visualstudio.code"})
        EXPECT_TRUE(AppActionCatalog::isVSCode(id)) << id;
    for (const auto id : {"com.vscodium.vscodium", "codium", "code-oss", "org.example"})
        EXPECT_FALSE(AppActionCatalog::isVSCode(id)) << id;
}
