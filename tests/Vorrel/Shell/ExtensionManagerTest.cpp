#include "Vorrel/Shell/ExtensionManager.h"

#include "Support/MainLoop.h"

#include <gtest/gtest.h>

using namespace korvane;

TEST(ExtensionManager, HoldsManifestsAndBeginsWithNone)
{
    MainLoop loop;
    ExtensionManager manager(loop.executor());
    EXPECT_TRUE(manager.manifests.empty());
    manager.manifests["notes"] = {.name = "notes", .title = "Notes", .version = "1", .commands = {}, .tools = {}};
    EXPECT_EQ(manager.manifests.at("notes").title, "Notes");
}
